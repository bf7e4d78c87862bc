// Boxes of RTP hint tracks (ISO/IEC 14496-12 §9.1): the "rtp " hint sample
// entry with its "tims", "tsro" and "snro" children, the "rtpo" packet TLV,
// and the "hnti" boxes that carry the SDP text of the movie and of a track.
#ifndef QUIL_BOXES_HINTBOXES_H
#define QUIL_BOXES_HINTBOXES_H

#include <cstdint>
#include <memory>

#include "boxes/Box.h"
#include "boxes/SampleEntries.h"

namespace quil {

// A plain box whose payload is one 32-bit value: "rtpo" (signed time
// offset of a packet), "tims" (RTP clock rate), "tsro" (random offset added
// to RTP timestamps), "snro" (random offset added to sequence numbers).
class CInt32PayloadBox : public CBox {
public:
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err calculateSize() override;

    uint32_t value = 0;

protected:
    explicit CInt32PayloadBox(uint32_t boxType) { type = boxType; }
};

class CRTPOffsetTLVBox : public CInt32PayloadBox {
public:
    CRTPOffsetTLVBox() : CInt32PayloadBox(fourcc("rtpo")) {}
    MP4Err dump(int32_t depth) override;
    int32_t offset() const { return static_cast<int32_t>(value); }
};

class CTimeScaleEntryBox : public CInt32PayloadBox {
public:
    CTimeScaleEntryBox() : CInt32PayloadBox(fourcc("tims")) {}
    MP4Err dump(int32_t depth) override;
};

class CTimeStampOffsetBox : public CInt32PayloadBox {
public:
    CTimeStampOffsetBox() : CInt32PayloadBox(fourcc("tsro")) {}
    MP4Err dump(int32_t depth) override;
};

class CSequenceOffsetBox : public CInt32PayloadBox {
public:
    CSequenceOffsetBox() : CInt32PayloadBox(fourcc("snro")) {}
    MP4Err dump(int32_t depth) override;
};

// "rtp " hint sample entry. Keeps its "tims" (required), "tsro" and "snro"
// children; any other child is read and dropped.
class CRtpHintSampleEntry : public CSampleEntry {
public:
    CRtpHintSampleEntry() : CSampleEntry(fourcc("rtp ")) {}
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calculateSize() override;
    MP4Err findChild(uint32_t childType, CBox** box, uint32_t instance = 1) override;
    // Takes a "tims", "tsro" or "snro" box: 8 when one is held already,
    // 2 for any other box (not taken).
    MP4Err addChild(CBox* box) override;
    CBoxList* childList() override { return nullptr; }

    uint16_t hintTrackVersion = 1;
    uint16_t highestCompatibleVersion = 1;
    uint32_t maxPacketSize = 0;
    std::unique_ptr<CTimeScaleEntryBox> tims;
    std::unique_ptr<CTimeStampOffsetBox> tsro;
    std::unique_ptr<CSequenceOffsetBox> snro;
};

// "hnti" of the movie (its "rtp " child holds the session SDP) and of a
// track (its "sdp " child holds the media SDP): plain containers.
class CMovieHintInformationBox : public CContainerBox {
public:
    CMovieHintInformationBox() { type = fourcc("hnti"); }
};
class CTrackHintInformationBox : public CMovieHintInformationBox {};

// Text payload kept with one hidden terminating zero that is never written.
class CSdpTextBox : public CBox {
public:
    MP4Err dump(int32_t depth) override;
    // Copies the text (null clears it).
    MP4Err setText(const char* text);
    const char* text() const { return text_ ? text_.get() : ""; }
    uint32_t textLength() const { return textLength_; }

protected:
    MP4Err readText(CStorage* storage);
    MP4Err writeText(CStorage* storage);

    std::unique_ptr<char[]> text_;
    uint32_t textLength_ = 0;
};

// Movie-level "rtp " inside "hnti": a description format ("sdp "), then
// the session SDP up to the end of the box.
class CRtpMovieHintInformationBox : public CSdpTextBox {
public:
    CRtpMovieHintInformationBox() { type = fourcc("rtp "); }
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err calculateSize() override;

    uint32_t descriptionFormat = fourcc("sdp ");
};

// "sdp " inside a track's "hnti": the media SDP is the whole payload.
class CRtpTrackSdpHintInformationBox : public CSdpTextBox {
public:
    CRtpTrackSdpHintInformationBox() { type = fourcc("sdp "); }
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err calculateSize() override;
};

}  // namespace quil

#endif
