// quil import OUT IN... : raw elementary streams (H.264, HEVC, AAC, AMR,
// MP3, WAV) muxed into a new file, one track each, through
// Mp4ImportStreams. --lang, --name and --fps given after an input apply to
// it; given before the first input, to every input.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Command.h"
#include "Import.h"
#include "quil/quil.h"
#include "quil/Mp4Import.h"
#include "storage/WidePath.h"

namespace quil {
namespace tool {
namespace {

struct InputOptions {
    std::string language;
    std::string name;
    uint32_t rateNumerator = 0;
    uint32_t rateDenominator = 0;
};

// "25", "29.97" or "30000/1001" frames per second.
bool parseFrameRate(const std::string& text, uint32_t* numerator, uint32_t* denominator) {
    const size_t slash = text.find('/');
    if (slash != std::string::npos) {
        uint64_t num = 0, den = 0;
        if (!parseNumber(text.substr(0, slash).c_str(), 1, 1000000, &num) ||
            !parseNumber(text.substr(slash + 1).c_str(), 1, 1000000, &den)) {
            return false;
        }
        *numerator = static_cast<uint32_t>(num);
        *denominator = static_cast<uint32_t>(den);
        return true;
    }
    char* end = nullptr;
    const double fps = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(fps >= 0.001 && fps <= 1000)) return false;
    *numerator = static_cast<uint32_t>(fps * 1000 + 0.5);
    *denominator = 1000;
    return true;
}

// Spreads each option's values over the inputs (operands 1..n): a value
// after input k belongs to it; one before the first input to all.
template <class Apply>
bool spreadOption(const Arguments& arguments, const char* option, std::vector<InputOptions>* inputs,
                  Apply apply) {
    const std::vector<std::string> values = arguments.values(option);
    const std::vector<size_t> before = arguments.operandsBefore(option);
    for (size_t i = 0; i < values.size(); ++i) {
        if (before[i] <= 1) {
            for (InputOptions& input : *inputs) {
                if (!apply(values[i], &input)) return false;
            }
        } else if (!apply(values[i], &(*inputs)[before[i] - 2])) {
            return false;
        }
    }
    return true;
}

int runImport(const Arguments& arguments) {
    const size_t inputCount = arguments.operands().size() - 1;
    std::vector<InputOptions> options(inputCount);
    if (!spreadOption(arguments, "--lang", &options, [](const std::string& value, InputOptions* o) {
            o->language = value;
            return value.size() == 3;
        })) {
        return usageError("import: --lang needs a three-letter ISO 639-2 code (eng, fra, und)");
    }
    spreadOption(arguments, "--name", &options, [](const std::string& value, InputOptions* o) {
        o->name = value;
        return true;
    });
    if (!spreadOption(arguments, "--fps", &options, [](const std::string& value, InputOptions* o) {
            return parseFrameRate(value, &o->rateNumerator, &o->rateDenominator);
        })) {
        return usageError("import: --fps needs a frame rate such as 25, 29.97 or 30000/1001");
    }
    const std::string target = arguments.operand(0);
    std::wstring wideTarget;
    if (utf8ToWidePath(target.c_str(), &wideTarget) != MP4_OK) {
        return usageError("import: the output name is not valid UTF-8");
    }
    uint32_t fileType = Mp4FileTypeForName(wideTarget.c_str());
    if (const char* typeText = arguments.value("--type")) {
        uint64_t type = 0;
        if (!parseNumber(typeText, 0, MP4_FILE_QUICKTIME, &type)) {
            return usageError("import: --type needs a file type from 0 to 12");
        }
        fileType = static_cast<uint32_t>(type);
    }

    std::vector<std::wstring> paths(inputCount);
    std::vector<MP4ImportStream> streams(inputCount);
    for (size_t i = 0; i < inputCount; ++i) {
        if (utf8ToWidePath(arguments.operand(i + 1), &paths[i]) != MP4_OK) {
            return usageError(std::string("import: ") + arguments.operand(i + 1) + " is not valid UTF-8");
        }
        streams[i].path = paths[i].c_str();
        streams[i].language = options[i].language.empty() ? nullptr : options[i].language.c_str();
        streams[i].name = options[i].name.empty() ? nullptr : options[i].name.c_str();
        streams[i].frameRateNumerator = options[i].rateNumerator;
        streams[i].frameRateDenominator = options[i].rateDenominator;
    }

    OutputFile output;
    std::string error;
    if (!output.create(target, &error)) {
        std::fprintf(stderr, "quil: import: %s\n", error.c_str());
        return kExitFailure;
    }
    std::wstring temporary;
    CMp4File* file = nullptr;
    MP4Err err = utf8ToWidePath(output.temporaryPath().c_str(), &temporary);
    if (err == MP4_OK) err = CMp4File::createInstance(&file);
    if (err == MP4_OK) err = file->open(temporary.c_str(), MP4_OPEN_WRITE, fileType);
    if (err != MP4_OK) {
        std::fprintf(stderr, "quil: import: %s: cannot create the output: %s\n", target.c_str(),
                     toString(err));
        CMp4File::destroyInstance(&file);
        return kExitFailure;
    }
    // Players show the file as long as its longest track.
    (void)file->setMovieDurationRule(MP4_MOVIE_DURATION_LONGEST_TRACK);
    MP4ImportReport report;
    err = Mp4ImportStreams(file, streams.data(), static_cast<uint32_t>(streams.size()), &report);
    if (err == MP4_OK) err = file->close();
    CMp4File::destroyInstance(&file);
    if (err != MP4_OK) {
        const char* where = report.stream > 0 ? arguments.operand(report.stream) : target.c_str();
        std::fprintf(stderr, "quil: import: %s: %s (%s)\n", where,
                     report.message[0] ? report.message : "writing the output failed", toString(err));
        return kExitFailure;
    }
    if (!output.commit(&error)) {
        std::fprintf(stderr, "quil: import: %s\n", error.c_str());
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace

const Command kImportCommand = {
    "import",
    "import OUT IN... [--lang L] [--name N] [--fps F] [--type N]",
    "  import   mux raw streams into a new file OUT, one track each: H.264 and\n"
    "           HEVC (Annex B), AAC (ADTS), AMR and AMR-WB (#!AMR), MP3, WAV.\n"
    "           --lang L (ISO 639-2), --name N (track name) and --fps F (video\n"
    "           frame rate: 25, 29.97, 30000/1001; default the stream's) apply\n"
    "           to the input they follow, or to all when given before the\n"
    "           first; the file type follows OUT's extension (.mp4, .m4a,\n"
    "           .3gp, .mov) unless --type N gives it\n",
    {{"--lang", true}, {"--name", true}, {"--fps", true}, {"--type", true}},
    2,
    1000,
    runImport,
};

}  // namespace tool
}  // namespace quil
