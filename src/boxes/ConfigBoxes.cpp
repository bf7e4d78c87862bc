#include "ConfigBoxes.h"

namespace quil {

}  // namespace quil
