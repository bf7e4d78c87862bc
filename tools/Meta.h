// The "meta" command of the quil tool.
#ifndef QUIL_TOOLS_META_H
#define QUIL_TOOLS_META_H

#include "Command.h"

namespace quil {
namespace tool {

// quil meta FILE [--json] | quil meta FILE --set KEY[:LANG]=VALUE ... -o OUT
extern const Command kMetaCommand;

}  // namespace tool
}  // namespace quil

#endif
