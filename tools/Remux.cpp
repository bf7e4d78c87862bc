// quil remux IN OUT [--type N] [--faststart]: every track of IN copied into
// a new file through the library's write interface.
#include "Command.h"
#include "Rewrite.h"

namespace quil {
namespace tool {
namespace {

int runRemux(const Arguments&) {
    return usageError("remux: not available yet");
}

}  // namespace

const Command kRemuxCommand = {
    "remux",
    "remux IN OUT [--type N] [--faststart]",
    "  remux    copy every track of IN into a new file OUT\n",
    {{"--type", true}, {"--faststart", false}},
    2,
    2,
    runRemux,
};

}  // namespace tool
}  // namespace quil
