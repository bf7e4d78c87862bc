// quil: umbrella header.
#ifndef QUIL_QUIL_H
#define QUIL_QUIL_H

#include "Export.h"
#include "MP4Err.h"
#include "MP4Types.h"
#include "Mp4File.h"
#include "Mp4BoxWalk.h"
#include "Mp4FileInfo.h"
#include "Mp4Path.h"
#include "Mp4SampleCopy.h"
#include "Mp4SampleTable.h"
#include "Mp4HintTrack.h"
#include "Mp4Import.h"
#include "Mp4MetaData.h"
#include "Mp4Tags.h"
#include "Mp4Track.h"
#include "NetSettings.h"
#include "Storage.h"

#endif
