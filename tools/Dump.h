// The "dump" command of the quil tool.
#ifndef QUIL_TOOLS_DUMP_H
#define QUIL_TOOLS_DUMP_H

#include "Command.h"

namespace quil {
namespace tool {

// quil dump FILE [--json] [--entries N]
extern const Command kDumpCommand;

}  // namespace tool
}  // namespace quil

#endif
