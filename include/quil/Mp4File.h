// quil: the file object, the library's entry point.
#ifndef QUIL_MP4FILE_H
#define QUIL_MP4FILE_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"
#include "MP4Types.h"
#include "Storage.h"

namespace quil {

class CMp4Track;
class CMp4MetaData;
class CMp4RtpHintTrack;

// Caller's hook into the session description written when a hinted file is
// closed: it is offered the SDP text and may return a replacement (copied
// by the library) or null to keep it.
class QUIL_API CMp4HintTrackContext {
public:
    virtual const char* replaceSessionSdp(const char* sdp) = 0;
    virtual ~CMp4HintTrackContext() = default;
};

// Fragmented writing (see CMp4File::setFragmentation). Value-initialise
// it (MP4FragmentSettings settings{};) and change what is wanted.
struct MP4FragmentSettings {
    // A fragment ends before the first sync sample of the first video track
    // (of the first track when there is no video) that comes at least this
    // long after the fragment's first sample of that track.
    uint32_t fragmentMilliseconds = 1000;
    // close appends a random-access index ("mfra" with a "tfra" per track).
    bool randomAccessIndex = true;
    // A segment index ("sidx") is written at close for up to this many
    // fragments, in room kept free after the movie box (0: none). More
    // fragments than that leave the room as a "free" box.
    uint32_t segmentIndexEntries = 0;
    // Segments: when not null, every fragment goes into a file of its own,
    // this prefix followed by the fragment's number (from 1) and ".m4s",
    // starting with "styp"; the opened file then holds only "ftyp" and the
    // movie box (an initialisation segment). Neither index is written.
    const wchar_t* segmentPrefix = nullptr;
    // CMAF brands: "cmfc" among the compatible brands (with "styp" major
    // brand "msdh" in segments).
    bool cmafBrands = false;
};

// One fragment as written: its first decode time and duration in the time
// scale of the track that decides the cuts (see MP4FragmentSettings), where
// its "moof" starts in its file and its size with the "mdat" (and "styp").
struct MP4FragmentInfo {
    uint64_t startTime = 0;
    uint64_t duration = 0;
    uint32_t timeScale = 0;
    uint64_t offset = 0;
    uint64_t size = 0;
    bool startsWithSync = false;
};

// A media file opened for reading (mode 0) or created for writing (mode 1).
// Obtain one with createInstance, release it with destroyInstance; close it
// first. Track numbers are 1-based positions among the file's tracks.
//
// Writing: open(path, 1, fileType) writes the "ftyp" of the file type
// (MP4FileType; none for type 9) and a 16-byte "mdat" header at once;
// addTrack hands out tracks whose samples go into "mdat" chunk by chunk
// (see CMp4Track's writing calls); releaseTrack finalises a track; close
// rewrites the "mdat" header with its final size and appends "moov" (a file
// closed without tracks gets no "moov"). The movie's duration is the first
// track's unless setMovieDurationRule asks for the longest track's.
//
// Paths are wide-character strings of at most 2047 characters (longer ones
// are cut). Each wchar_t is one Unicode code point (UTF-32, as wchar_t is
// on Linux) and becomes the file name's UTF-8 bytes, whatever the locale;
// a value that is no Unicode scalar value (a surrogate, or above 0x10FFFF)
// makes open fail with 4. A path starting with the four characters "http"
// (lower case, at position 0) is read over HTTP(S).
class QUIL_API CMp4File {
public:
    // mode: MP4_OPEN_READ or MP4_OPEN_WRITE (MP4OpenMode); fileType: the
    // MP4FileType written in write mode (read mode detects it).
    virtual MP4Err open(const wchar_t* path, uint32_t mode, uint32_t fileType) = 0;
    // Read mode: releases the box tree and the storage. Write mode: also
    // finishes the file as above. Release every track first. When a step
    // fails (a write error gives 4), its code is returned and the file stays
    // open, nothing lost: the caller may call close again (e.g. after
    // freeing disc space) or give up and destroy the object.
    virtual MP4Err close() = 0;
    virtual MP4Err isOpen(uint32_t* open) = 0;
    virtual MP4Err setStorage(CStorage* storage) = 0;  // caller-owned, used by the next open
    virtual MP4Err getTrackCount(uint32_t* count) = 0;
    virtual MP4Err getTimeScale(uint32_t* timeScale) = 0;
    virtual MP4Err getFileType(uint32_t* fileType) = 0;
    // The index-th (0 = first) "cprt" notice of the movie's "udta": its
    // length with the terminator into *length, and into buffer when
    // bufferSize is not zero (7 when it does not fit). 3 when missing.
    // setCopyright adds "udta" and the "cprt" (language "und") as needed.
    virtual MP4Err getCopyright(uint8_t* buffer, uint64_t bufferSize, uint32_t* length,
                                uint32_t index) = 0;
    virtual MP4Err setCopyright(const uint8_t* text, uint64_t length, int32_t index) = 0;
    // The movie's metadata object, owned by the file (until close): 3 when a
    // read file has no "udta"; a file being written gains one.
    virtual MP4Err getMetaData(CMp4MetaData** metaData) = 0;
    virtual MP4Err getCreationTime(uint32_t* year, uint32_t* month, uint32_t* day,
                                   uint32_t* hour, uint32_t* minute, uint32_t* second) = 0;
    virtual MP4Err setCreationTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                                   uint32_t minute, uint32_t second) = 0;
    // Read mode; a file being written answers 3 (its tracks are the ones
    // addTrack handed out).
    virtual MP4Err getTrack(uint32_t trackNumber, CMp4Track** track) = 0;
    // Write mode only (3 otherwise): a new, empty track numbered
    // trackCount + 1, with track ID = its number, time scale 1000 and
    // language "und"; set its kind next (CMp4Track::setTrackType).
    virtual MP4Err addTrack(CMp4Track** track) = 0;
    // Hands a track back and deletes it. A writing track that holds samples
    // is finalised first: its last chunk is written, and durations, bit
    // rates and the edit list are filled in. When that fails the error is
    // returned and the track stays the caller's (release it again or
    // close after fixing the cause).
    virtual MP4Err releaseTrack(CMp4Track* track) = 0;
    // RTP hint tracks (see Mp4HintTrack.h). getHintTrack: the hint track
    // object over track n (2 outside 1..trackCount, 3 when track n is not an
    // RTP hint track). createHintTrack, write mode only: the packetizer of a
    // kind (MP4HintKind): 1 MPEG-4 video (RFC 3016), 2 AAC in LATM (RFC 3016), 3 AAC
    // (RFC 3640), 4 H.263 (RFC 4629), 5 AMR/AMR-WB (RFC 4867), 6 H.264
    // (RFC 6184). addHintTrack gives it the next RTP payload type (96, 97,
    // ... 128; then 2) and builds its hint track for its media track. The
    // hint track objects are the caller's to delete.
    virtual MP4Err getHintTrack(uint32_t trackNumber, CMp4RtpHintTrack** hintTrack) = 0;
    virtual MP4Err createHintTrack(CMp4RtpHintTrack** hintTrack, int32_t kind) = 0;
    virtual MP4Err addHintTrack(CMp4RtpHintTrack* hintTrack) = 0;
    virtual MP4Err setHintTrackContext(CMp4HintTrackContext* context) = 0;
    virtual MP4Err dumpBoxes() = 0;
    // 0..2 (2 above; MP4TrackMode). Tracks made afterwards take it: a writing audio track
    // whose sample entry is raw PCM ("twos", "sowt", "raw ", "ulaw",
    // "alaw", "in24", "fl32", ...) then writes chunk-as-sample: each
    // addSample call becomes one chunk of size / bytes-per-audio-sample
    // samples of duration 1, the way such tracks are read back. Compressed
    // audio and other tracks are not affected.
    virtual MP4Err setTrackMode(uint32_t trackMode) = 0;
    virtual MP4Err optimizeFile(int32_t operation, const wchar_t* sourcePath,
                                const wchar_t* targetPath) = 0;
    // Write mode: the ISMA scene-description and object-descriptor tracks
    // for the first video and first audio track among the two (0: none),
    // and their ES_ID_Incs in the movie's initial object descriptor.
    virtual MP4Err addIsmaObjectDescriptorTrack(uint32_t firstTrackNumber,
                                                uint32_t secondTrackNumber) = 0;
    // The session SDP of a hinted file, zero-terminated (7 when the buffer
    // cannot hold it and its terminator, 3 when the file has none).
    virtual MP4Err getSessionSdp(uint8_t* buffer, uint32_t bufferSize) = 0;
    // Write mode: copies the user data ("udta" with every box in it: asset
    // and iTunes metadata, boxes the library does not know) of a file open
    // for reading into this file: the movie's when both track numbers are
    // 0, else that of track sourceTrack of the source into track
    // targetTrack of this file (added before). RTP session data ("hnti")
    // is left out unless this file holds hint tracks (copies of the
    // source's, see CMp4Track::copyTrackFrom). Boxes already in
    // the target's user data stay; the copies follow them. 3 when this file
    // is not being written, the source is not open, or there is no such
    // track or user data (nothing is copied); 2 for a null source or when
    // only one of the track numbers is 0.
    virtual MP4Err copyUserData(CMp4File* source, uint32_t sourceTrack,
                                uint32_t targetTrack) = 0;
    // Write mode: copies the boxes of a read file's movie that this file
    // does not make itself (protection system data "pssh", movie-level
    // "meta", boxes the library does not know), as they are; not "mvhd",
    // the tracks, "udta" (copyUserData), "iods" or fragment defaults. 2 for
    // a null source, 3 when this file is not being written or the source
    // is not open.
    virtual MP4Err copyMovieBoxes(CMp4File* source) = 0;
    // Reading: the movie fragments ("moof") of a fragmented file, 0 for a
    // classic one. Their samples are part of the tracks: every sample
    // operation of CMp4Track answers for the movie's samples followed by
    // those of the fragments, in file order. 4 when nothing is open.
    // Writing in fragments: the fragments written so far (also after
    // close, until the next open).
    virtual MP4Err getFragmentCount(uint32_t* count) = 0;
    // Write mode only (3 otherwise; 2 for an unknown rule): the movie
    // duration close writes into "mvhd" (MP4MovieDurationRule).
    // MP4_MOVIE_DURATION_FIRST_TRACK, the default at every open, keeps the
    // first track's duration; MP4_MOVIE_DURATION_LONGEST_TRACK writes the
    // longest track's (in movie time units, edit lists included) among the
    // tracks of the presentation (hint tracks are not; all tracks when
    // none is), which is what players and ffprobe show as the length.
    virtual MP4Err setMovieDurationRule(uint32_t rule) = 0;
    // Write mode, after open and before the first sample is written and
    // before setFragmentation: the file's "ftyp" becomes majorBrand,
    // minorVersion and the count compatible brands (e.g. those of a file
    // being copied), in place of the ones of the file type open was given;
    // the file type still decides everything else. It is written again at
    // once, the "mdat" header after it (a shorter "ftyp" leaves a "free" box
    // before the header). setFragmentation then adds its brands to these.
    // 2 for a null list with a count above 0 or more than 65536 brands; 3
    // when the file is not being written, has media data or fragments
    // already, or has no "ftyp" of its own (types 4, 9 and 10).
    virtual MP4Err setBrands(uint32_t majorBrand, uint32_t minorVersion,
                             const uint32_t* compatibleBrands, uint32_t count) = 0;
    // ---- Fragmented writing ------------------------------------------------
    // setFragmentation, on a file opened for writing (types other than 4
    // and 10) before its first sample, turns it into a fragmented file: the
    // "ftyp" is written again with "iso6" among its compatible brands, and
    // the movie box, with "mvex" ("mehd", a "trex" per track) and empty
    // sample tables, follows it once the first fragment is ready (tracks
    // and their sample entries, edit lists and dimensions must be set by
    // then; addTrack afterwards gives 3). Samples then go out in fragments
    // ("moof" + "mdat"), each cut as the settings say; a fragment is on disc
    // (the storage flushed) before addSample returns from cutting it, so a
    // writer that stops without close leaves a file that plays up to its
    // last complete fragment. A sample's duration is the distance to the
    // next decode time of its track (the last one of a track repeats the
    // one before): decode times may repeat but not go back, and composition
    // times may precede decode times (by less than 2^31; written as
    // signed offsets). An edit list set on a track (setEditList) goes into
    // the movie box as it stands when the first sample comes, so give its
    // presented duration there: the media's length is not known yet then.
    // close writes what is left as the last fragment, the
    // indexes the settings ask for, and the longest track's duration into
    // "mvhd" and "mehd". 3 when the file is not being written, already has
    // samples or is of type 4 or 10; 2 for a null settings or 0 ms.
    virtual MP4Err setFragmentation(const MP4FragmentSettings* settings) = 0;
    // The fragments written so far (after close: those of the closed file,
    // until the next open), index from 0; 2 beyond them, 3 when the file
    // was not written in fragments. getFragmentCount counts them too.
    virtual MP4Err getFragmentInfo(uint32_t index, MP4FragmentInfo* info) = 0;
    virtual ~CMp4File() = default;

    static MP4Err createInstance(CMp4File** file);
    // Deletes the object and sets *file to null (2 for a null file; 0 when
    // *file is null). A file still open for writing is closed first, as
    // close does it (tracks still held are finalised, "moov" is written,
    // the caller's track objects must then only be deleted): its error, if
    // any, is returned, and the object is deleted either way. A file open
    // for reading is released without a close.
    static MP4Err destroyInstance(CMp4File** file);

    // ISMA 1.0 descriptors (ISO/IEC 14496-1).
    // createIsmaIod: the initial object descriptor of an SDP session with
    // the OD stream (ES 1) and the scene stream (ES 2) inline; the media
    // get ES IDs 201 (video) and 101 (audio). *iodLength is the capacity of
    // iod on entry and the descriptor's length on return (7 when it does
    // not fit). decodeIsmaIod: the media streams of such a descriptor (as
    // other tools write them too): their count, kinds (MP4TrackType), the
    // lengths of their decoder-specific bytes and those bytes (null when
    // empty); every array and buffer is the caller's to free with delete[].
    // createIsmaODUpdateCommand: the object-descriptor update with OD 20
    // (video) and 10 (audio) for the tracks whose ID is above 0; with
    // odTrackId 0 each holds its full ES descriptor (decoder-specific bytes
    // and bit rate, which may be null), otherwise an ES_ID_Ref to the OD
    // track's "mpod" references (1 video, 2 audio, or 1 alone).
    // createIsmaBifsCommand: the scene replacement for those streams (19
    // for neither). Commands are allocated by the library, freed by the
    // caller with delete[].
    static MP4Err createIsmaIod(bool hasVideo, bool hasAudio, char* videoConfig,
                                uint32_t videoConfigLength, char* audioConfig,
                                uint32_t audioConfigLength, char* iod, uint32_t* iodLength);
    static MP4Err decodeIsmaIod(const char* iod, uint32_t iodLength, uint32_t* count,
                                MP4TrackType** trackTypes, uint32_t** values, char*** buffers);
    static MP4Err createIsmaODUpdateCommand(int32_t videoTrackId, int32_t audioTrackId,
                                            int32_t odTrackId, char* videoConfig,
                                            uint32_t videoConfigLength, char* audioConfig,
                                            uint32_t audioConfigLength, uint32_t* videoBitrate,
                                            uint32_t* audioBitrate, char** command,
                                            uint32_t* commandLength);
    static MP4Err createIsmaBifsCommand(uint32_t hasVideo, uint32_t hasAudio, char** command,
                                        uint32_t* commandLength);
};

// Opens the file, and returns the sample-entry four-character code of its
// first video track ("avc1" as 0x61766331), or 0 when the file cannot be
// opened or has no video track.
QUIL_API uint32_t Mp4VideoCodecId(const wchar_t* path);

}  // namespace quil

#endif
