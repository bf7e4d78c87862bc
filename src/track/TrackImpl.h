// The track object behind CMp4Track: binds to a "trak" of the file's box
// tree, builds its sample time table and answers sample and property
// questions; in write mode it collects samples into chunks.
#ifndef QUIL_TRACK_TRACKIMPL_H
#define QUIL_TRACK_TRACKIMPL_H

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "quil/Mp4MetaData.h"
#include "quil/Mp4Track.h"
#include "boxes/DataList.h"
#include "track/FragmentAuxInfo.h"
#include "track/SampleIndex.h"
#include "track/SampleTimes.h"
#include "track/SampleTables.h"
#include "track/TrackHost.h"

namespace quil {

class CBox;
struct MP4SampleTableEntry;
class CFragmentSampleSink;
class CTrackBox;
class CTrackHeaderBox;
class CMediaBox;
class CMediaInformationBox;
class CMediaHeaderBox;
class CSampleDescriptionBox;
class CSampleEntry;
class CESDBox;
class CHandlerReferenceBox;
class CSampleTableBox;
class CMediaDataBox;
class CMovieHeaderBox;

// Decode and composition time of every sample, gathered once when a track
// is bound (held as runs, see SampleTimes.h).
class CSampleTimeTable {
public:
    uint32_t sampleCount = 0;
    CSampleTimes times;  // reading
    uint32_t cursorIndex = 1;  // last sample found by a decode-time search
    uint32_t writing = 0;      // 0 for a track that reads
    uint64_t timeOffset = 0;   // reading: the initial delay added to decode times
};

// value x to / from without overflow, truncating (0 for from == 0).
uint64_t rescaleTime(uint64_t value, uint32_t to, uint32_t from);

class CTrackImpl final : public CMp4Track {
public:
    // host: the file the track belongs to (not owned); mode is the file's
    // track mode (0..2).
    CTrackImpl(CTrackHost* host, uint32_t mode);
    ~CTrackImpl() override;

    // Binds the track to the trackIndex-th "trak" (1-based) of the file's
    // movie and builds its sample time table.
    MP4Err bind(uint32_t trackIndex);

    MP4Err getSampleCount(uint32_t* count) override;
    MP4Err getTrackType(uint32_t* type) override;
    MP4Err getSampleEntryType(uint32_t* format) override;
    MP4Err getCodecType(uint32_t* codec) override;
    MP4Err getTrackId(uint32_t* trackId) override;
    MP4Err getDuration(uint64_t* duration) override;
    MP4Err getTimeScale(uint32_t* timeScale) override;
    MP4Err getMediaDuration(uint64_t* duration) override;
    MP4Err getWidth(uint32_t* width) override;
    MP4Err getHeight(uint32_t* height) override;
    MP4Err getChannelCount(uint32_t* channels) override;
    MP4Err getSampleRate(uint32_t* sampleRate) override;
    MP4Err getSampleBits(uint32_t* bits) override;
    MP4Err getDecoderSpecificInfo(uint8_t* buffer, uint32_t bufferSize, uint32_t* length) override;
    MP4Err getLanguage(uint8_t language[3]) override;
    MP4Err getVolume(int16_t* volume) override;
    MP4Err isSyncSample(uint32_t sample, uint32_t* sync) override;
    MP4Err getCprtNotice(uint8_t* buffer, uint64_t bufferSize, uint32_t* length, uint32_t index) override;
    MP4Err setCprtNotice(const uint8_t* text, uint64_t length, int32_t index) override;
    MP4Err getMetaData(CMp4MetaData** metaData) override;
    MP4Err getCreationTime(uint32_t* year, uint32_t* month, uint32_t* day, uint32_t* hour, uint32_t* minute, uint32_t* second) override;
    MP4Err setCreationTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hour, uint32_t minute, uint32_t second) override;
    MP4Err setLanguage(const uint8_t language[3]) override;
    MP4Err setTimeScale(uint32_t timeScale) override;
    MP4Err getObjectTypeIndication(uint8_t* objectType) override;
    MP4Err getBitrates(uint32_t* bufferSizeDB, uint32_t* maxBitrate, uint32_t* avgBitrate) override;
    MP4Err getCodecConfiguration(uint8_t* buffer, uint32_t bufferSize, uint32_t* length) override;
    MP4Err getPixelAspectRatio(uint32_t* hSpacing, uint32_t* vSpacing) override;
    MP4Err readSample(uint32_t sample, uint32_t bufferSize, uint32_t* size, uint8_t* buffer) override;
    MP4Err getSampleOffset(uint32_t sample, uint64_t* offset, uint32_t* size) override;
    MP4Err getSampleSize(uint32_t sample, uint32_t* size) override;
    MP4Err getSampleDecodeTime(uint32_t sample, uint64_t* time) override;
    MP4Err getSampleCompositionTime(uint32_t sample, uint64_t* time) override;
    // Mp4GetSampleTable: entries of samples first .. first + count - 1 as
    // the four queries give them; *filled counts those filled.
    MP4Err fillSampleTable(uint32_t first, uint32_t count, MP4SampleTableEntry* entries,
                           uint32_t* filled);
    MP4Err getTimecode(uint64_t time, uint8_t* hours, uint8_t* minutes, uint8_t* seconds, uint8_t* frames) override;
    MP4Err getTimecodeFlag(uint32_t which, uint8_t* flag) override;
    MP4Err findSampleByCompositionTime(uint64_t time, uint32_t* sample) override;
    MP4Err findSyncSampleBefore(uint64_t time, uint32_t* sample) override;
    MP4Err findSampleByDecodeTime(uint64_t time, uint32_t* sample) override;
    MP4Err setTrackType(uint32_t type) override;
    MP4Err addSampleEntry(const MP4SampleEntryInfo* info) override;
    MP4Err setChunkLimits(uint64_t durationLimit, uint32_t byteLimit) override;
    MP4Err addSampleEntryFrom(CMp4Track* source, uint32_t index) override;
    MP4Err setDimensions(uint32_t width, uint32_t height, uint32_t rotation) override;
    MP4Err setVolume(int16_t volume) override;
    MP4Err setHandlerName(const char* name) override;
    MP4Err setAudioSampleFactor(uint32_t factor) override;
    MP4Err addSample(const uint8_t* data, uint32_t size, uint64_t decodeTime, uint64_t compositionTime, bool sync) override;
    MP4Err shiftChunkOffsets(int32_t delta) override;
    MP4Err setEditList(uint64_t initialDelay, int64_t firstMediaTime,
                       uint64_t presentedDuration) override;
    MP4Err getInitialDelay(uint64_t* delay, int64_t* firstMediaTime,
                           uint64_t* presentedDuration) override;
    MP4Err setLastSampleDuration(uint32_t duration) override;
    double getRotateAngle() override;
    MP4Err getProtectionScheme(uint32_t* originalFormat, uint32_t* scheme,
                               uint32_t* schemeVersion) override;
    MP4Err copyTrackFrom(CMp4Track* source) override;
    MP4Err copySampleFrom(uint32_t sample, uint32_t* size) override;

    // The metadata object; with create, a missing "udta" is added first.
    MP4Err metaDataFor(bool create, CMp4MetaData** metaData);
    // Sample description index (1-based) of a read sample.
    MP4Err getSampleDescriptionIndex(uint32_t sample, uint32_t* index);
    // Movie fragments holding samples of this track (0 for a classic file).
    uint32_t fragmentCount() const { return fragments_ ? fragments_->fragmentCount() : 0; }

    // ---- writing (TrackWriter.cpp) ----
    // Builds the "trak" of a new track numbered trackIndex under "moov" of
    // a file open for writing: tkhd (flags 7, track ID = trackIndex) and
    // mdia{mdhd (language "und"), hdlr (type 0), minf{}}.
    MP4Err initWriting(uint32_t trackIndex);
    // Writes the pending chunk, finishes "stts", fills durations, the edit
    // list and bit rates. Runs once for a track with samples; a failure
    // leaves the track as it was, so that it can be retried.
    MP4Err finalizeWriting();
    bool isWriting() const { return writing_; }
    // The file is closing: every box this track points at goes away.
    void detachFromFile();
    // Takes ownership of a sample entry made elsewhere (e.g. hint tracks'
    // "rtp " entry) and appends it to "stsd". 5 before setTrackType.
    MP4Err addSampleEntryBox(CBox* entry);
    CTrackBox* trackBox() const { return trak_; }

    // ---- copying by runs (TrackCopy.cpp), driven by the file's copy of
    // every sample (RemuxCopy.cpp) ----
    // Readies this copy (copyTrackFrom, no sample yet) to take its
    // source's samples in order from the source's tables, their bytes
    // appended through sink and never read. 12 where that could give
    // another result than copySampleFrom (fragments, chunk-as-sample audio,
    // tables that do not agree, a sample without bytes or outside the file,
    // auxiliary information); nothing changes then. With sourceChunks the
    // chunks end where the source's end instead of at this track's limits.
    MP4Err startRunCopy(CCopiedMediaSink* sink, bool sourceChunks);
    bool runCopyDone() const;
    // The next sample: its number, its decode time as the source reports
    // it, and the source's time scale as its getTimeScale gives it.
    uint32_t runCopyNextSample() const { return lastCopied_ + 1; }
    uint64_t runCopyNextDecode() const;
    uint32_t runCopyTimeScale() const;
    // Where the next sample's bytes lie in the source file.
    uint64_t runCopyNextOffset() const;
    // Takes the next sample as copySampleFrom would; *size: its bytes.
    MP4Err copyNextRunSample(uint32_t* size);
    // Writes the pending chunk and leaves run copying.
    MP4Err endRunCopy();
    // Leaves run copying after a failure, the pending chunk dropped.
    void abandonRunCopy();
    // The file of the track copied from; null unless copyTrackFrom.
    CTrackHost* copySourceHost() const;

private:
    // Binding steps.
    MP4Err findBoxes(uint32_t trackIndex);
    MP4Err findMediaType();
    MP4Err findSampleTables();
    MP4Err computeInitialDelay();
    void chooseChunkAsSampleMode();
    MP4Err buildSampleTimeTable();
    MP4Err appendSampleTimes(CSampleTimeTable* table, uint32_t limit);
    MP4Err appendChunkTimes(CSampleTimeTable* table, uint32_t limit);
    bool takeDenseEntries(CSampleTimes* times, CDataListSpan<CCompositionOffsetTableEntry>* span,
                          uint32_t delta, uint32_t* index, uint32_t* offset, uint64_t* time,
                          uint32_t* left, uint64_t* previousComposition);
    uint32_t sampleTimeLimit() const;

    // The samples of the movie's tables as one source of the sample index;
    // its answers are the lookups below.
    class MovieSamples final : public CSampleSource {
    public:
        explicit MovieSamples(CTrackImpl& track) : track_(track) {}
        MP4Err sampleSize(uint32_t sample, uint32_t* size) override;
        MP4Err sampleOffset(uint32_t sample, uint32_t size, uint64_t* offset,
                            uint64_t* readAheadEnd) override;
        MP4Err isSync(uint32_t sample, uint32_t* sync) override;
        MP4Err descriptionIndex(uint32_t sample, uint32_t* index) override;
        MP4Err previousSync(uint32_t sample, uint32_t* sync) override;

    private:
        CTrackImpl& track_;
    };
    MP4Err gatherFragments();
    // Calls f(source, local) with the source answering a sample and its
    // number there. The movie's tables answer most samples: named by their
    // own (final) class they are called directly, and inlined, instead of
    // through the index's virtual interface, once per question per sample.
    template <class F>
    MP4Err withSourceOf(uint32_t sample, F&& f) {
        uint32_t local = 0;
        CSampleSource* source = index_.sourceOf(sample, &local);
        if (source == &movieSamples_) return f(movieSamples_, local);
        return f(*source, local);
    }
    MP4Err walkBackToPresentedSync(uint32_t found, uint64_t time, bool acrossSources,
                                   uint32_t* sample);

    // Sample access helpers.
    MP4Err offsetThroughIndex(uint32_t sample, uint64_t* offset, uint32_t* size);
    MP4Err readThroughIndex(uint32_t sample, uint32_t bufferSize, uint32_t* size, uint8_t* buffer);
    MP4Err readyForTimes() const;
    MP4Err checkTimedSample(uint32_t sample);
    MP4Err searchedDecodeTime(uint32_t sample, uint64_t* time);
    MP4Err searchedCompositionTime(uint32_t sample, uint64_t* time);
    MP4Err previousMovieSync(uint32_t sample, uint32_t* sync);
    MP4Err chunkOffset(uint32_t chunk, uint64_t* offset);
    MP4Err sizeOfStszSample(uint32_t sample, uint32_t* size);
    MP4Err chunkAsSampleSize(uint32_t chunk, uint32_t* size);
    MP4Err locateInChunk(uint32_t sample, uint32_t sampleSize);
    MP4Err locateBeyondCursor(uint32_t sample, uint32_t sampleSize);
    void stepInChunk(uint32_t sample, uint32_t sampleSize);
    void enterNextChunk(uint32_t sample, uint32_t sampleSize, uint64_t position);
    bool atCursor(uint32_t sample) const;
    MP4Err readAtCursor(uint32_t size, uint8_t* buffer);
    bool stepInOrder(uint32_t sample, uint32_t* size, uint64_t* position);
    // The other queries' answers without any check or search, where the
    // state at hand gives them (false: ask the query itself).
    bool decodeInOrder(uint32_t sample, uint64_t* time) const;
    bool compositionInOrder(uint32_t sample, uint64_t* time) const;
    bool syncInOrder(uint32_t sample, uint32_t* sync) const;
    bool sizeAtHand(uint32_t sample, uint32_t* size) const;
    bool chunkOffsetAtHand(uint32_t chunk, uint64_t* offset) const;
    MP4Err walkToSample(uint32_t sample);
    bool nextChunkOf(uint32_t sample);
    uint64_t chunkEndOffset();
    MP4Err chunkOfSample(uint32_t sample, uint32_t* chunk, uint32_t* first, uint32_t* perChunk);
    bool sizeInOrder(uint32_t sample, uint32_t* size);
    bool spannedSize(uint32_t sample, uint32_t* size);
    bool spannedChunkOffset(uint32_t chunk, uint64_t* offset);
    const CSampleToChunkTableEntry* stscEntry(uint32_t index);
    void markTablesFixed(bool fixed);
    MP4Err isListedSyncSample(uint32_t sample, uint32_t* sync);
    MP4Err isMovieSyncSample(uint32_t sample, uint32_t* sync);
    struct StscRun;
    uint64_t runEnd(const StscRun& run);
    uint64_t endOfRun(uint32_t index, uint64_t firstSample, const CSampleToChunkTableEntry& entry);

    // Sample-entry helpers.
    MP4Err firstEntry(CSampleEntry** entry);
    template <class T>
    MP4Err firstEntryOf(T** entry);
    MP4Err esdsOfFirstEntry(CESDBox** esds);
    struct SoundFields {
        uint32_t channels;
        uint32_t bits;
        uint32_t rate;
    };
    MP4Err firstSoundFields(SoundFields* fields);
    MP4Err codecOfFormat(uint32_t format, uint32_t* codec);

    CTrackHost* host_;
    uint32_t trackIndex_ = 0;
    uint32_t trackId_ = 0;
    uint32_t open_ = 0;
    uint32_t mode_;
    uint32_t mediaType_ = 0;

    // Boxes of the file's tree (not owned).
    CTrackBox* trak_ = nullptr;
    CTrackHeaderBox* tkhd_ = nullptr;
    CMediaBox* mdia_ = nullptr;
    CMediaInformationBox* minf_ = nullptr;
    CMediaHeaderBox* mdhd_ = nullptr;
    CTimeToSampleBox* stts_ = nullptr;
    CCompositionOffsetBox* ctts_ = nullptr;
    CSampleSizeBox* stsz_ = nullptr;
    CSampleToChunkBox* stsc_ = nullptr;
    CChunkOffsetBox* stco_ = nullptr;
    CChunkLargeOffsetBox* co64_ = nullptr;
    CSyncSampleBox* stss_ = nullptr;
    CSampleDescriptionBox* stsd_ = nullptr;
    // Stands in for the "stsd" a damaged sample table lacks (never written).
    std::unique_ptr<CSampleDescriptionBox> missingStsd_;
    MP4Err describeNoSamples(CSampleDescriptionBox** stsd);

    std::unique_ptr<CSampleTimeTable> timeTable_;
    MovieSamples movieSamples_{*this};
    std::unique_ptr<CFragmentSamples> fragments_;  // only when the file has fragments
    CSampleIndex index_;
    uint64_t initialDelay_ = 0;    // media time scale
    int64_t firstMediaTime_ = 0;   // media time where presentation starts
    uint64_t presentedDuration_ = 0;  // of that edit, media time scale
    uint32_t chunkAsSample_ = 0;   // 0, or 1/2: each chunk of raw audio is one sample

    // The chunk of the last offset query: its number, first sample, the
    // sample after it (0 when unknown), the sample reached and its offset in
    // the chunk, and the chunk's file offset.
    struct OffsetCursor {
        uint32_t chunk = 0;
        uint32_t chunkFirst = 0;
        uint32_t sample = 0;
        uint32_t chunkEnd = 0;
        uint32_t sampleSize = 0;  // size of `sample`
        uint64_t chunkOffset = 0;
        uint64_t offsetInChunk = 0;
        uint64_t chunkBytes = 0;  // bytes of the whole chunk; 0 until needed
    } offsetCursor_;
    // The "stsc" run of the last chunk lookup: its entry and index, and the
    // number of its first sample.
    struct StscRun {
        const CSampleToChunkTableEntry* entry = nullptr;
        uint32_t index = 0;
        uint64_t firstSample = 1;
        uint64_t endSample = 0;  // first sample of the next run
    } stscRun_;
    bool stscAscending_ = false;
    // Queries in sample order over a track read from a file: the samples
    // the sample-mode movie tables answer (0 for none: chunk-as-sample,
    // writing, not bound), those the time table answers, and those of them
    // the movie's sync table answers. The table lists never lose their
    // nodes while such a track is open, so entries are taken from spans of
    // their blocks (see CDataListSpan) instead of being looked up.
    uint32_t inOrderCount_ = 0;
    uint32_t timedCount_ = 0;
    uint32_t movieTimedCount_ = 0;
    CDataListSpan<CSampleSizeTableEntry> sizeSpan_;
    CDataListSpan<CChunkOffsetTableEntry> offsetSpan_;
    CDataListSpan<CChunkLargeOffsetTableEntry> largeOffsetSpan_;
    CDataListSpan<CSampleToChunkTableEntry> stscSpan_;
    bool tablesFixed_ = false;
    // Position in "stss" of the last sync test, for tests in sample order.
    uint32_t syncCursor_ = 1;
    // The sync sample numbers around the last sample tested: samples in
    // (low, high] are sync samples only at high. Empty until a test.
    struct SyncWindow {
        uint64_t low = 0;
        uint64_t high = 0;
    } syncWindow_;
    bool stssAscending_ = true;
    // The sync sample numbers in one array, for searching an ascending
    // "stss" by halves; made on the first search.
    std::vector<uint32_t> syncNumbers_;

    // Metadata over the track's "udta", made on the first request.
    std::unique_ptr<CMp4MetaData> metaData_;
    MP4Err findTrackUserData(bool create, CBox** udta);

    // ---- copying a read track (TrackCopy.cpp) ----
    struct StoredTiming {
        uint64_t decode = 0;       // without the initial delay
        int32_t offset = 0;        // composition offset as stored
        uint32_t sync = 1;
        uint32_t description = 1;  // sample description index
        uint32_t firstStored = 0;  // first table sample (of the chunk in chunk mode)
        uint32_t storedCount = 1;  // table samples it holds
    };
    MP4Err adoptCopiedTrack(CTrackBox* trak);
    MP4Err storedTiming(uint32_t sample, StoredTiming* timing);
    uint32_t storedDuration(uint32_t sample);
    MP4Err addCopiedTimes(const StoredTiming& timing, CTrackImpl* from, uint32_t bytes);
    MP4Err copyFragmentSample(CFragmentSampleSink* fragments, uint32_t sample,
                              const StoredTiming& timing, uint32_t bytes, uint32_t* size);
    MP4Err addCopiedOffset(uint32_t sample, int32_t offset);
    MP4Err gatherAuxInfo(CTrackImpl* from);
    // The auxiliary information and sample groups of a fragmented source,
    // carried sample by sample into the copy's tables; null without.
    std::unique_ptr<CFragmentAuxInfo> auxInfo_;
    // Copying by runs: a walk over the source's tables, and the state of
    // the copy (the pending chunk as byte ranges of the source).
    class TableWalk;
    struct RunCopy;
    struct RunCopyDeleter {
        void operator()(RunCopy* run) const;
    };
    MP4Err checkRunCopySamples(uint32_t count, uint64_t fileLength);
    MP4Err writeCopiedChunk(uint64_t* offset);
    std::unique_ptr<RunCopy, RunCopyDeleter> runCopy_;
    CTrackImpl* copySource_ = nullptr;  // the read track copied (not owned)
    uint32_t lastCopied_ = 0;           // its last sample copied
    uint32_t lastDuration_ = 0;         // that sample's duration
    uint32_t pendingDescription_ = 1;   // of the pending chunk's samples

    // ---- writing state (TrackWriter.cpp) ----
    MP4Err buildMediaInformation(uint32_t kind);
    MP4Err checkSample(const uint8_t* data, uint32_t size, uint64_t decodeTime,
                       uint64_t compositionTime, uint32_t* audioSamples);
    MP4Err addToTables(uint32_t size, uint64_t decodeTime, uint64_t compositionTime, bool sync);
    MP4Err addCompositionOffset(uint32_t sample, uint64_t decodeTime, uint64_t compositionTime);
    MP4Err addSyncFlag(uint32_t sample, bool sync);
    MP4Err queueBytes(const uint8_t* data, uint32_t size, uint32_t samples);
    MP4Err reserveChunkBytes(uint64_t needed);
    MP4Err chunkAfterAppend(uint64_t decodeTime);
    MP4Err chunkBeforeAppend(CChunkInterleaving* interleaving, uint64_t decodeTime, bool sync);
    bool chunkLimitReached(uint64_t decodeTime, bool sync, bool interleaving) const;
    MP4Err flushChunk();
    MP4Err recordChunkOffset(uint32_t chunk, uint64_t offset);
    MP4Err addToStatistics(uint64_t decodeTime, uint32_t size);
    MP4Err finishDurations();
    MP4Err finishSampleTimes();
    MP4Err writeEditList(uint64_t mediaDuration);
    uint64_t presentationEnd(uint64_t mediaDuration) const;
    MP4Err fillBitrates(uint64_t mediaDuration);
    void fillDefaultDimensions();
    MP4Err movieTimeScale(uint32_t* timeScale);
    // "mvhd" of the file: 3 when missing, 5 with a zero time scale.
    MP4Err movieHeader(CMovieHeaderBox** header);
    MP4Err appendSampleEntry(CBox* entry, bool builtHere);

    bool writing_ = false;
    bool finalized_ = false;
    bool sttsFinished_ = false;
    CHandlerReferenceBox* hdlr_ = nullptr;
    CSampleTableBox* stbl_ = nullptr;
    uint32_t nextSample_ = 1;
    uint64_t lastDecodeTime_ = 0;
    uint32_t bytesPerAudioSample_ = 0;  // chunk-as-sample writing; 0 before a sample entry
    // The chunk being collected: its samples' bytes back to back (written
    // in one piece: the same bytes as sample by sample, fewer calls).
    std::unique_ptr<uint8_t[]> chunkBuffer_;
    uint64_t chunkCapacity_ = 0;
    uint64_t pendingBytes_ = 0;
    uint32_t pendingCount_ = 0;
    uint64_t pendingStart_ = 0;
    uint32_t nextChunk_ = 1;
    uint64_t chunkDurationLimit_ = 0;
    uint32_t chunkByteLimit_ = 1000000;
    uint32_t chunkSampleLimit_ = 100;
    // Statistics for the bit rates: all bytes, the largest sample, and the
    // bits of the samples within the last second of decode time.
    uint64_t totalBytes_ = 0;
    uint32_t largestSample_ = 0;
    uint64_t peakBits_ = 0;
    uint64_t spanBits_ = 0;
    struct SpanNode {
        uint64_t decodeTime;
        uint32_t size;
    };
    std::deque<SpanNode> span_;
    // Edit list asked for by setEditList.
    bool editSet_ = false;
    uint64_t editDelay_ = 0;
    int64_t editMediaTime_ = 0;
    uint64_t editDuration_ = 0;
    // Duration of the last sample asked for (0: the previous sample's).
    uint32_t lastSampleDuration_ = 0;
    // The latest end of a sample's presentation (composition time +
    // duration) among the samples whose duration is known, and the last
    // sample's composition time.
    uint64_t compositionEnd_ = 0;
    uint64_t lastComposition_ = 0;
    bool dimensionsSet_ = false;
    bool fillsBitrates_ = false;  // the first sample entry was built here
    // The track mode asks for chunk-as-sample writing and the first sample
    // entry is raw audio.
    bool chunkAsSampleWriting_ = false;
};

}  // namespace quil

#endif
