// Placeholder bodies until track reading lands: every operation answers
// MP4_ERR_UNSUPPORTED.
#include "TrackImpl.h"

namespace quil {

CTrackImpl::CTrackImpl(CMp4FileImpl* file, uint32_t mode) : file_(file), mode_(mode) {}
CTrackImpl::~CTrackImpl() = default;
MP4Err CTrackImpl::bind(uint32_t) { return MP4_ERR_UNSUPPORTED; }
double CTrackImpl::getRotateAngle() { return 0.0; }
MP4Err CTrackImpl::getSampleCount(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getTrackType(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getSampleEntryType(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getCodecType(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getTrackId(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getDuration(uint64_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getTimeScale(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getMediaDuration(uint64_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getWidth(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getHeight(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getChannelCount(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getSampleRate(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getSampleBits(uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getDecoderSpecificInfo(uint8_t*, uint32_t, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getLanguage(uint8_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getVolume(int16_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::isSyncSample(uint32_t, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getCprtNotice(uint8_t*, uint64_t, uint32_t*, uint32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setCprtNotice(const uint8_t*, uint64_t, int32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getMetaData(CMp4MetaData**) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getCreationTime(uint32_t*, uint32_t*, uint32_t*, uint32_t*, uint32_t*, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setCreationTime(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setLanguage(const uint8_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setTimeScale(uint32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getObjectTypeIndication(uint8_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getBitrates(uint32_t*, uint32_t*, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getCodecConfiguration(uint8_t*, uint32_t, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getPixelAspectRatio(uint32_t*, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::readSample(uint32_t, uint32_t, uint32_t*, uint8_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getSampleOffset(uint32_t, uint64_t*, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getSampleSize(uint32_t, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getSampleDecodeTime(uint32_t, uint64_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getSampleCompositionTime(uint32_t, uint64_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getTimecode(uint64_t, uint8_t*, uint8_t*, uint8_t*, uint8_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getTimecodeFlag(uint32_t, uint8_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::findSampleByCompositionTime(uint64_t, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::findSyncSampleBefore(uint64_t, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::findSampleByDecodeTime(uint64_t, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setTrackType(uint32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::addVisualSampleEntry(uint32_t, uint16_t, uint16_t, const uint8_t*, uint32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setChunkLimits(uint64_t, uint32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::addSoundSampleEntry(uint32_t, uint32_t, uint16_t, uint16_t, const uint8_t*, uint32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setDimensions(uint32_t, uint32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setVolume(int16_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setHandlerName(const char*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::setAudioSampleFactor(uint32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::addSample(const uint8_t*, uint32_t, uint64_t, uint64_t, bool) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::shiftChunkOffsets(int32_t) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getSampleDescriptionIndex(uint32_t, uint32_t*) { return MP4_ERR_UNSUPPORTED; }
MP4Err CTrackImpl::getInitialDelay(uint64_t*) { return MP4_ERR_UNSUPPORTED; }

}  // namespace quil
