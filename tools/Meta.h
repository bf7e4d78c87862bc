// The "meta" command of the quil tool.
#ifndef QUIL_TOOLS_META_H
#define QUIL_TOOLS_META_H

namespace quil {
namespace tool {

// quil meta FILE [--json] | quil meta FILE --set KEY[:LANG]=VALUE ... -o OUT.
// argv[1] is "meta". Returns the process exit code.
int runMeta(int argc, char** argv);

}  // namespace tool
}  // namespace quil

#endif
