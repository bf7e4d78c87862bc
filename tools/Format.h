// printf into a std::string, for the tool's reports and manifests.
#ifndef QUIL_TOOLS_FORMAT_H
#define QUIL_TOOLS_FORMAT_H

#include <cstdarg>
#include <cstdio>
#include <string>

namespace quil {
namespace tool {

inline std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

inline std::string format(const char* pattern, ...) {
    char buffer[512];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(buffer, sizeof buffer, pattern, arguments);
    va_end(arguments);
    return buffer;
}

}  // namespace tool
}  // namespace quil

#endif
