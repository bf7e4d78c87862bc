// The quil tool's commands: how each one declares its arguments, the
// parsed command line it receives, and helpers the writing commands share.
#ifndef QUIL_TOOLS_COMMAND_H
#define QUIL_TOOLS_COMMAND_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace quil {
namespace tool {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

struct OptionRule {
    const char* name;  // with its dashes: "--track"
    bool takesValue;   // "--track N" or "--track=N"
};

// A command line after parsing: the words that are not options, in order,
// and the options, which may stand anywhere ("quil info --json FILE").
class Arguments {
public:
    bool has(const std::string& option) const { return options_.count(option) != 0; }
    // The option's value, or null when it was not given.
    const char* value(const std::string& option) const {
        auto found = options_.find(option);
        return found == options_.end() ? nullptr : found->second.c_str();
    }
    // Every value of an option given several times ("--set A=1 --set B=2"),
    // in order; empty when it was not given.
    std::vector<std::string> values(const std::string& option) const {
        auto found = repeated_.find(option);
        return found == repeated_.end() ? std::vector<std::string>() : found->second;
    }
    // For each value of values(option): how many operands came before it
    // on the line, so that an option can apply to the operand it follows.
    std::vector<size_t> operandsBefore(const std::string& option) const {
        auto found = positions_.find(option);
        return found == positions_.end() ? std::vector<size_t>() : found->second;
    }
    const std::vector<std::string>& operands() const { return operands_; }
    const char* operand(size_t index) const { return operands_[index].c_str(); }

    // Fills the arguments from argv[first..argc) against the command's
    // options; "--" ends the options. On failure *error says why.
    bool parse(int argc, char** argv, int first, const std::vector<OptionRule>& rules,
               std::string* error);

private:
    std::vector<std::string> operands_;
    std::map<std::string, std::string> options_;
    std::map<std::string, std::vector<std::string>> repeated_;
    std::map<std::string, std::vector<size_t>> positions_;
};

// One command of the tool. To add one: a source defining a Command and a
// row in the table of quil.cpp.
struct Command {
    const char* name;
    const char* synopsis;  // the usage line after "quil "
    const char* help;      // indented description lines for --help
    std::vector<OptionRule> options;
    size_t minOperands;
    size_t maxOperands;
    int (*run)(const Arguments& arguments);
};

// Prints "quil: <message> (see quil --help)" and returns kExitUsage.
int usageError(const std::string& message);

// A number in decimal digits only, within [low, high].
bool parseNumber(const char* text, uint64_t low, uint64_t high, uint64_t* number);

// An output written under a temporary name in the target's directory and
// renamed over the target only when complete, so that a failure or an
// interruption never leaves a half-written file under the target's name.
class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile();  // removes the temporary file unless committed
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Makes the temporary file; false with *error set when it cannot.
    bool create(const std::string& target, std::string* error);
    const std::string& temporaryPath() const { return temporary_; }
    // Gives the file the usual permissions and moves it to the target.
    bool commit(std::string* error);

private:
    std::string target_;
    std::string temporary_;
    bool committed_ = false;
    int watchSlot_ = -1;  // of the interruption handler
};

// A progress line on stderr ("\rquil: remux: 42%"), shown only for large
// work when stderr is a terminal, at most a few times a second.
class Progress {
public:
    Progress(const char* label, uint64_t total);
    ~Progress();  // ends the line if one was shown
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    bool enabled() const { return enabled_; }
    void update(uint64_t done);

private:
    const char* label_;
    uint64_t total_;
    bool enabled_ = false;
    bool shown_ = false;
    int lastPercent_ = -1;
    double lastTime_ = 0;
};

// Size of a file on disc, 0 when it cannot be found.
uint64_t fileSize(const std::string& path);

}  // namespace tool
}  // namespace quil

#endif
