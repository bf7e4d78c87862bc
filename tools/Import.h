// The "import" command of the quil tool.
#ifndef QUIL_TOOLS_IMPORT_H
#define QUIL_TOOLS_IMPORT_H

#include "Command.h"

namespace quil {
namespace tool {

// quil import OUT IN... [--lang L] [--name N] [--fps F] [--type N]
extern const Command kImportCommand;

}  // namespace tool
}  // namespace quil

#endif
