// libFuzzer target for the descriptor and configuration-record readers.
// Placeholder so the fuzz build links; the real target replaces it.
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* /*data*/, size_t /*size*/) {
    return 0;
}
