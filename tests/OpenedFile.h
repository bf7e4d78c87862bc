// Test helpers: fixtures of tests/data by path or as bytes, and a file
// opened for reading through the public interface, from a fixture or over
// bytes in a caller-owned memory storage. Tracks handed out are released
// before the file closes.
#ifndef QUIL_TESTS_OPENEDFILE_H
#define QUIL_TESTS_OPENEDFILE_H

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "BoxBuilder.h"
#include "quil/quil.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace test {

inline std::string fixturePath(const std::string& name) { return std::string(QUIL_TEST_DATA_DIR) + "/" + name; }
inline std::wstring widePath(const std::string& name) {
    std::string path = fixturePath(name);
    return std::wstring(path.begin(), path.end());
}

inline Bytes loadFixture(const std::string& name) {
    std::ifstream in(fixturePath(name), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class OpenedFile {
public:
    explicit OpenedFile(const std::string& fixture) {
        EXPECT_EQ(MP4_OK, CMp4File::createInstance(&file_));
        EXPECT_EQ(MP4_OK, file_->open(widePath(fixture).c_str(), 0, 0)) << fixture;
    }
    explicit OpenedFile(Bytes bytes) : bytes_(std::move(bytes)) {
        EXPECT_EQ(MP4_OK, CMp4File::createInstance(&file_));
        storage_.attach(bytes_.data(), static_cast<uint32_t>(bytes_.size()), false);
        EXPECT_EQ(MP4_OK, file_->setStorage(&storage_));
        EXPECT_EQ(MP4_OK, file_->open(nullptr, 0, 0));
    }
    ~OpenedFile() {
        for (CMp4Track* track : tracks_) (void)file_->releaseTrack(track);
        (void)file_->close();
        CMp4File::destroyInstance(&file_);
        storage_.detach();
    }
    CMp4File* file() { return file_; }
    MP4Err getTrack(uint32_t number, CMp4Track** track) {
        MP4Err err = file_->getTrack(number, track);
        if (err == MP4_OK) tracks_.push_back(*track);
        return err;
    }
    // The track, or null with a test failure.
    CMp4Track* track(uint32_t number) {
        CMp4Track* t = nullptr;
        EXPECT_EQ(MP4_OK, getTrack(number, &t)) << "track " << number;
        return t;
    }

private:
    CMp4File* file_ = nullptr;
    Bytes bytes_;
    CMemoryStorage storage_;
    std::vector<CMp4Track*> tracks_;
};

}  // namespace test
}  // namespace quil

#endif
