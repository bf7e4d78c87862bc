// The file object behind CMp4File.
#ifndef QUIL_FILE_MP4FILEIMPL_H
#define QUIL_FILE_MP4FILEIMPL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "boxes/Box.h"
#include "storage/MediaReader.h"
#include "quil/Mp4File.h"
#include "track/TrackHost.h"

namespace quil {

class CDiscStorage;
class CRangeCopier;
struct MP4SampleCopyFailure;
struct MP4SampleCopyProgress;
class CFragmentWriter;
class CMovieHeaderBox;
class CMediaDataBox;
class CTrackImpl;

class CMp4FileImpl : public CMp4File,
                     public CTrackHost,
                     public CFragmentSampleSink,
                     public CCopiedMediaSink {
public:
    CMp4FileImpl();
    ~CMp4FileImpl() override;

    MP4Err open(const wchar_t* path, uint32_t mode, uint32_t fileType) override;
    MP4Err close() override;
    MP4Err isOpen(uint32_t* open) override;
    MP4Err setStorage(CStorage* storage) override;
    MP4Err getTrackCount(uint32_t* count) override;
    MP4Err getTimeScale(uint32_t* timeScale) override;
    MP4Err getFileType(uint32_t* fileType) override;
    MP4Err getCopyright(uint8_t* buffer, uint64_t bufferSize, uint32_t* length,
                        uint32_t index) override;
    MP4Err setCopyright(const uint8_t* text, uint64_t length, int32_t index) override;
    MP4Err getMetaData(CMp4MetaData** metaData) override;
    MP4Err getCreationTime(uint32_t* year, uint32_t* month, uint32_t* day, uint32_t* hour,
                           uint32_t* minute, uint32_t* second) override;
    MP4Err setCreationTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                           uint32_t minute, uint32_t second) override;
    MP4Err getTrack(uint32_t trackNumber, CMp4Track** track) override;
    MP4Err addTrack(CMp4Track** track) override;
    MP4Err releaseTrack(CMp4Track* track) override;
    MP4Err getHintTrack(uint32_t trackNumber, CMp4RtpHintTrack** hintTrack) override;
    MP4Err createHintTrack(CMp4RtpHintTrack** hintTrack, int32_t kind) override;
    MP4Err addHintTrack(CMp4RtpHintTrack* hintTrack) override;
    MP4Err setHintTrackContext(CMp4HintTrackContext* context) override;
    MP4Err dumpBoxes() override;
    MP4Err setTrackMode(uint32_t trackMode) override;
    MP4Err optimizeFile(int32_t operation, const wchar_t* sourcePath,
                        const wchar_t* targetPath) override;
    MP4Err addIsmaObjectDescriptorTrack(uint32_t firstTrackNumber,
                                        uint32_t secondTrackNumber) override;
    MP4Err getSessionSdp(uint8_t* buffer, uint32_t bufferSize) override;
    MP4Err copyUserData(CMp4File* source, uint32_t sourceTrack, uint32_t targetTrack) override;
    MP4Err setFragmentation(const MP4FragmentSettings* settings) override;
    MP4Err copyMovieBoxes(CMp4File* source) override;
    MP4Err getFragmentCount(uint32_t* count) override;
    MP4Err setMovieDurationRule(uint32_t rule) override;
    MP4Err setBrands(uint32_t majorBrand, uint32_t minorVersion, const uint32_t* compatibleBrands,
                     uint32_t count) override;
    // destroyInstance: a file still being written is closed first.
    bool isOpenForWriting() const { return isOpen_ != 0 && mode_ == 1; }
    MP4Err getFragmentInfo(uint32_t index, MP4FragmentInfo* info) override;

    // For the track objects (not exported).
    // The metadata object; with create, a missing "udta" is added first
    // (for a read file whose metadata is edited and then written out).
    MP4Err metaDataFor(bool create, CMp4MetaData** metaData);
    // The file-level boxes in file order (null when nothing is open).
    CBoxList* topLevelBoxes() const { return topLevelBoxes_.get(); }
    // First top-level box of that type: 3 when there is none.
    MP4Err findTopLevelBox(uint32_t type, CBox** box);
    CStorage* storage() const { return storage_; }
    bool isOpenFlag() const { return isOpen_ != 0; }

    // CTrackHost: what the track objects reach of their file.
    MP4Err findMovie(CBox** moov) override { return findTopLevelBox(fourcc("moov"), moov); }
    CBoxList* fileBoxes() override { return topLevelBoxes_.get(); }
    bool storageLength(uint64_t* length) override;
    uint32_t mode() const override { return mode_; }  // 0 read, 1 write
    uint32_t fileType() const override { return fileType_; }
    // The UTF-8 path of a disc storage made by open (samples may then be
    // read through a handle of their own); null for a supplied or network
    // storage.
    const char* readPath() const;
    // Media bytes for a track, through the file's media reader: a
    // read-only handle of its own for a file opened by path (any failure
    // 4), else the storage (its errors passed on). 4 unless the file is
    // open for reading. readAheadEnd: the end of the chunk holding the
    // bytes (0 when unknown); nothing beyond it is fetched ahead.
    MP4Err readMediaBytes(uint64_t offset, uint32_t size, uint8_t* buffer,
                          uint64_t readAheadEnd = 0) override;
    // The reader holds a window only while the file is open (closing and
    // opening close it), so a window of a file open for reading answers
    // as readMediaBytes would.
    bool readFetchedBytes(uint64_t offset, uint32_t size, uint8_t* buffer) override {
        return mode_ == 0 && mediaReader_.readFromWindow(offset, size, buffer);
    }
    // Media bytes of a file being written, read back from the disc (a hint
    // track reads the samples already written) through the same reader,
    // opened on the file's path at the first read: 12 for a supplied
    // storage, 3 when nothing is open.
    MP4Err readBackMediaBytes(uint64_t offset, uint32_t size, uint8_t* buffer);

    // RTP hinting (HintSlots.cpp; the hint layer does the work through
    // FileHinting.h). The track mode hint tracks read their media with.
    uint32_t trackMode() const { return trackMode_; }
    // A reading track over track n, also in write mode, where it must have
    // been released (3 while the caller still writes it, unless
    // evenWhileWriting: the session description at close only reads the
    // sample entries of finished tracks).
    MP4Err getFinishedTrack(uint32_t trackNumber, CMp4Track** track, bool evenWhileWriting = false);

    // Writing (FileWriter.cpp). Appends bytes at the end of the media data
    // and reports where they start. The bytes are pushed to the storage
    // before this returns, so a write error belongs to these bytes: "mdat"
    // then stays as it was and the next append writes at the same place.
    MP4Err appendMediaData(const uint8_t* bytes, uint64_t length, uint64_t* offset) override;
    // XAVC files interleave the chunks of their audio and video tracks.
    CChunkInterleaving* chunkInterleaving() override {
        return fileType_ == MP4_FILE_XAVC ? &interleaving_ : nullptr;
    }
    // A file written in fragments takes its tracks' samples itself.
    CFragmentSampleSink* fragmentSamples() override {
        return fragmentWriter_ ? this : nullptr;
    }
    // CFragmentSampleSink (FragmentedFile.cpp): the first sample makes the
    // movie box from the tracks as they stand, then goes to the writer.
    MP4Err addFragmentSample(uint32_t trackId, const uint8_t* data, uint32_t size,
                             uint64_t decodeTime, uint64_t compositionTime, bool sync) override;

    // Every sample of copied tracks of this file being written, their
    // chunks copied file to file (RemuxCopy.cpp; Mp4CopyTrackSamples, and
    // Mp4CopyTrackChunks with sourceChunks).
    MP4Err copyTrackSamples(CMp4Track* const* tracks, uint32_t count, bool sourceChunks,
                            const MP4SampleCopyProgress* progress, MP4SampleCopyFailure* failure);
    // CCopiedMediaSink: the bytes go through the copier of that call.
    MP4Err appendCopiedBytes(uint64_t sourceOffset, uint64_t count, uint64_t* offset) override;

private:
    // Steps of open: the storage made for a path, the read path, and the
    // common failure exit.
    MP4Err makeStorageForPath(const wchar_t* path);
    MP4Err readTopLevel();
    MP4Err readBoxTree();
    void detectFileType();
    MP4Err countTracks();
    MP4Err failOpen(MP4Err err);
    void deleteOwnedStorage();
    // "moov"/"udta" of the open file; with create, a missing "udta" is
    // added. 3 when the file is not open or has no movie.
    MP4Err findMovieUserData(bool create, CBox** udta);
    // "moov"/"mvhd" of the open file: 3 when either is missing.
    MP4Err findMovieHeader(CMovieHeaderBox** header);
    // Steps of optimizeFile (Optimize.cpp), run with the source open as
    // the file's storage.
    MP4Err rewriteOpenSource(CDiscStorage* target, const std::string& sourceUtf8,
                             const std::string& targetUtf8);

    // Write path (FileWriter.cpp).
    MP4Err startWriting();
    MP4Err writeFileTypeBox();
    MP4Err makeMovieAndMediaData();
    MP4Err writeMediaDataHeader();
    MP4Err fillInitialObjectDescriptor();
    MP4Err finishWriting();
    MP4Err finishFragments();
    MP4Err startFragments();
    MP4Err finalizeOpenTracks();
    MP4Err setMovieDuration();
    MP4Err rewriteMediaDataHeader();
    MP4Err appendMovie();
    MP4Err findMediaData(CMediaDataBox** mdat);
    // The UTF-8 path of a file being written to disc, its buffered bytes
    // flushed; 12 for a supplied storage.
    MP4Err pathForReadingBack(std::string* path);
    // Steps of close kept for the PSP profile (user data made before the
    // session description, finished after it) and for hinted files (the
    // session description, HintSlots.cpp). Each returns 0 when it has
    // nothing to do.
    MP4Err addPspUserData();
    MP4Err writeSessionSdp();
    MP4Err finishPspUserData();
    bool isPspFileType() const;  // 4 (PSP) and 10 (XAVC)
    MP4Err writePspProfileBox();
    void forgetWritingTracks();
    // Releases what open made: storage (if made here), metadata, tree, path.
    void releaseAfterClose();

    CStorage* storage_ = nullptr;
    std::unique_ptr<wchar_t[]> path_;
    uint32_t isOpen_ = 0;
    uint32_t mode_ = 0;
    uint32_t fileType_ = 0;
    std::unique_ptr<CBoxList> topLevelBoxes_;
    uint32_t trackCount_ = 0;
    uint32_t trackMode_ = 0;
    uint32_t hasHintTracks_ = 0;
    uint8_t nextPayloadType_ = 96;
    uint32_t storageSupplied_ = 0;
    CMp4MetaData* metaData_ = nullptr;
    CMp4HintTrackContext* hintTrackContext_ = nullptr;
    std::string readPathUtf8_;
    CMediaReader mediaReader_;  // made ready by the first media read
    // Writing: tracks handed out by addTrack and not yet released (close
    // finishes them and cuts them loose from the boxes it frees), the end
    // of the media data written so far, and the interleaving signal.
    std::vector<CTrackImpl*> writingTracks_;
    uint64_t mediaDataEnd_ = 0;
    uint64_t fileTypeOffset_ = 0;  // where the "ftyp" written starts
    CChunkInterleaving interleaving_;
    bool movieWritten_ = false;
    uint32_t movieDurationRule_ = 0;  // MP4MovieDurationRule
    std::unique_ptr<CFragmentWriter> fragmentWriter_;
    CRangeCopier* rangeCopier_ = nullptr;  // during copyTrackSamples
};

}  // namespace quil

#endif
