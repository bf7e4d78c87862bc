// Argument parsing and the helpers shared by the tool's commands.
#include "Command.h"

#include <sys/stat.h>
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

constexpr uint64_t kProgressThreshold = 64ull << 20;  // smaller work ends too fast to watch

double now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

Progress::Progress(const char* label, uint64_t total) : label_(label), total_(total) {
    enabled_ = total >= kProgressThreshold && ::isatty(STDERR_FILENO) == 1;
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
