#include "MovieBoxes.h"

namespace quil {

}  // namespace quil
