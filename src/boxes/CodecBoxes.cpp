#include "CodecBoxes.h"

namespace quil {

}  // namespace quil
