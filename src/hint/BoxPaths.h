// Small walks through a file's box tree shared by the hint-track code: the
// n-th "trak", a child found by a path of types, a child made when missing.
#ifndef QUIL_HINT_BOXPATHS_H
#define QUIL_HINT_BOXPATHS_H

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <new>

#include "boxes/Box.h"
#include "file/Mp4FileImpl.h"

namespace quil {

// The first child at each step of the path (types as four-character codes).
inline MP4Err findChildPath(CBox* root, std::initializer_list<uint32_t> path, CBox** found) {
    *found = nullptr;
    CBox* box = root;
    for (uint32_t childType : path) {
        CBox* child = nullptr;
        MP4Err err = box->findChild(childType, &child, 1);
        if (err != MP4_OK) return err;
        box = child;
    }
    *found = box;
    return MP4_OK;
}

// The trackNumber-th "trak" of the movie (1-based).
inline MP4Err findTrackBox(CMp4FileImpl* file, uint32_t trackNumber, CBox** trak) {
    *trak = nullptr;
    CBox* moov = nullptr;
    MP4Err err = file->findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    return moov->findChild(fourcc("trak"), trak, trackNumber);
}

// The first child of that type, made and appended when there is none; 5
// when the child found is not of class T.
template <class T>
MP4Err findOrAddChild(CBox* parent, uint32_t childType, T** child) {
    *child = nullptr;
    CBox* found = nullptr;
    MP4Err err = parent->findChild(childType, &found, 1);
    if (err == MP4_OK) {
        *child = dynamic_cast<T*>(found);
        return *child ? MP4_OK : MP4_ERR_INVALID_DATA;
    }
    if (err != MP4_ERR_NOT_AVAILABLE) return err;
    std::unique_ptr<T> made(new (std::nothrow) T());
    if (!made) return MP4_ERR_OUT_OF_MEMORY;
    err = parent->addChild(made.get());
    if (err != MP4_OK) return err;
    *child = made.release();
    return MP4_OK;
}

}  // namespace quil

#endif
