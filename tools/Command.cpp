// Argument parsing and the helpers shared by the tool's commands.
#include "Command.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quil {
namespace tool {

// ---------------------------------------------------------------------------
// Arguments

namespace {

const OptionRule* findRule(const std::vector<OptionRule>& rules, const std::string& name) {
    for (const OptionRule& rule : rules) {
        if (name == rule.name) return &rule;
    }
    return nullptr;
}

}  // namespace

bool Arguments::parse(int argc, char** argv, int first, const std::vector<OptionRule>& rules,
                      std::string* error) {
    bool optionsEnded = false;
    for (int i = first; i < argc; ++i) {
        const std::string word = argv[i];
        if (optionsEnded || word.size() < 2 || word.compare(0, 2, "--") != 0) {
            operands_.push_back(word);
            continue;
        }
        if (word == "--") {
            optionsEnded = true;
            continue;
        }
        const size_t equals = word.find('=');
        const std::string name = word.substr(0, equals);
        const OptionRule* rule = findRule(rules, name);
        if (rule == nullptr) {
            *error = "unknown option " + name;
            return false;
        }
        if (!rule->takesValue) {
            if (equals != std::string::npos) {
                *error = name + " takes no value";
                return false;
            }
            options_[name] = "";
        } else if (equals != std::string::npos) {
            options_[name] = word.substr(equals + 1);
            repeated_[name].push_back(options_[name]);
            positions_[name].push_back(operands_.size());
        } else if (i + 1 < argc) {
            options_[name] = argv[++i];
            repeated_[name].push_back(options_[name]);
            positions_[name].push_back(operands_.size());
        } else {
            *error = name + " needs a value";
            return false;
        }
    }
    return true;
}

int usageError(const std::string& message) {
    std::fprintf(stderr, "quil: %s (see quil --help)\n", message.c_str());
    return kExitUsage;
}

bool parseNumber(const char* text, uint64_t low, uint64_t high, uint64_t* number) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < low || value > high) return false;
    *number = value;
    return true;
}

std::vector<TopLevelBox> topLevelBoxes(const char* path, uint64_t* length) {
    std::vector<TopLevelBox> boxes;
    *length = fileSize(path);
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) return boxes;
    uint8_t head[16];
    for (uint64_t offset = 0; offset + 8 <= *length;) {
        if (::fseeko(file, static_cast<off_t>(offset), SEEK_SET) != 0 ||
            std::fread(head, 1, 8, file) != 8) {
            break;
        }
        uint64_t size = (uint64_t{head[0]} << 24) | (head[1] << 16) | (head[2] << 8) | head[3];
        if (size == 1) {
            if (std::fread(head + 8, 1, 8, file) != 8) break;
            size = 0;
            for (int i = 8; i < 16; ++i) size = size << 8 | head[i];
        } else if (size == 0) {
            size = *length - offset;
        }
        if (size < 8) break;  // damaged
        const uint32_t type =
            (uint32_t{head[4]} << 24) | (head[5] << 16) | (head[6] << 8) | head[7];
        boxes.push_back({type, offset, size});
        if (size > *length - offset) break;
        offset += size;
    }
    std::fclose(file);
    return boxes;
}

bool readWholeFile(const std::string& path, std::vector<uint8_t>* bytes, std::string* error) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    bytes->clear();
    uint8_t buffer[65536];
    size_t count = 0;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        bytes->insert(bytes->end(), buffer, buffer + count);
    }
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) *error = path + ": " + std::strerror(EIO);
    return !failed;
}

std::string inputProblem(const char* path) {
    struct stat info {};
    if (::stat(path, &info) != 0) return std::strerror(errno);
    if (S_ISDIR(info.st_mode)) return std::strerror(EISDIR);
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) return std::strerror(errno);
    std::fclose(file);
    return std::string();
}

std::string outputProblem(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    struct statvfs disc {};
    if (::statvfs(directory.c_str(), &disc) != 0) return std::strerror(errno);
    // A write that failed on a disc with (almost) nothing left failed for that.
    if (static_cast<uint64_t>(disc.f_bavail) * disc.f_frsize < (1u << 20)) {
        return std::strerror(ENOSPC);
    }
    if (::access(directory.c_str(), W_OK) != 0) return std::strerror(errno);
    return std::string();
}

uint64_t fileSize(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

// ---------------------------------------------------------------------------
// OutputFile

namespace {

// The temporary files of the running command, removed if the user
// interrupts it. Fixed buffers: the handler may only call unlink.
constexpr int kWatchedFiles = 2;
char gTemporaryPaths[kWatchedFiles][4096];
volatile std::sig_atomic_t gTemporaryActive[kWatchedFiles] = {};

extern "C" void removeTemporaryAndExit(int signal) {
    for (int i = 0; i < kWatchedFiles; ++i) {
        if (gTemporaryActive[i]) ::unlink(gTemporaryPaths[i]);
    }
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

// The slot of the watched path, or -1.
int watchInterruptions(const std::string& path) {
    for (int i = 0; i < kWatchedFiles; ++i) {
        if (gTemporaryActive[i] || path.size() >= sizeof gTemporaryPaths[i]) continue;
        std::memcpy(gTemporaryPaths[i], path.c_str(), path.size() + 1);
        gTemporaryActive[i] = 1;
        std::signal(SIGINT, removeTemporaryAndExit);
        std::signal(SIGTERM, removeTemporaryAndExit);
        std::signal(SIGHUP, removeTemporaryAndExit);
        return i;
    }
    return -1;
}

void stopWatching(int slot) {
    if (slot >= 0) gTemporaryActive[slot] = 0;
}

}  // namespace

OutputFile::~OutputFile() {
    if (temporary_.empty() || committed_) return;
    stopWatching(watchSlot_);
    ::unlink(temporary_.c_str());
}

bool OutputFile::create(const std::string& target, std::string* error) {
    target_ = target;
    // In the target's directory, so that the final rename stays within one
    // file system and is atomic.
    const size_t slash = target.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
    std::string pattern = directory + "." + name + ".quil-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const int fd = ::mkstemp(buffer.data());
    if (fd < 0) {
        *error = std::string("cannot create a file next to ") + target + ": " + std::strerror(errno);
        return false;
    }
    ::close(fd);
    temporary_ = buffer.data();
    watchSlot_ = watchInterruptions(temporary_);
    return true;
}

bool OutputFile::commit(std::string* error) {
    // mkstemp made the file private; give it what a newly created file gets.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    if (::chmod(temporary_.c_str(), 0666 & ~mask) != 0 ||
        ::rename(temporary_.c_str(), target_.c_str()) != 0) {
        *error = std::string("cannot write ") + target_ + ": " + std::strerror(errno);
        return false;
    }
    committed_ = true;
    stopWatching(watchSlot_);
    return true;
}

// ---------------------------------------------------------------------------
// Progress

namespace {

double now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

Progress::Progress(const char* label, uint64_t total, uint64_t threshold, bool forced)
    : label_(label), total_(total) {
    enabled_ = total > 0 && (forced || (total >= threshold && ::isatty(STDERR_FILENO) == 1));
}

Progress::~Progress() {
    if (shown_) std::fputs("\n", stderr);
}

void Progress::update(uint64_t done) {
    if (!enabled_ || total_ == 0) return;
    const int percent = static_cast<int>(done >= total_ ? 100 : done * 100 / total_);
    const double time = now();
    if (percent == lastPercent_ || (time - lastTime_ < 0.25 && percent != 100)) return;
    lastPercent_ = percent;
    lastTime_ = time;
    shown_ = true;
    std::fprintf(stderr, "\rquil: %s: %3d%%", label_, percent);
    std::fflush(stderr);
}

}  // namespace tool
}  // namespace quil
