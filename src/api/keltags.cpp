// The flat entry point of the tag copier. It never lets an exception
// through to a C caller: TagLib allocates freely, and a failed allocation
// becomes the library's code for one.
#include "kel.h"

#include "tags/loudnesstags.h"
#include "tags/tagcopier.h"
#include "tags/tracktags.h"

#include <cmath>

#include <new>

extern "C" {

int kel_tags_copy(const char* from, const char* to, int* err)
{
    int scratch = 0;
    int* code = err != nullptr ? err : &scratch;
    *code = 0;
    if (from == nullptr || to == nullptr || *from == '\0' || *to == '\0') {
        *code = KEL_ERR_PARAMETER;
        return *code;
    }
    try {
        *code = KEL::TagCopier::copy(from, to);
    } catch (const std::bad_alloc&) {
        *code = KEL_ERR_UNKNOWN;
    } catch (...) {
        *code = KEL_ERR_INTERNAL;
    }
    return *code;
}

int kel_tags_set_replaygain(const char* path, double track_gain_db, double track_peak, double album_gain_db,
                            double album_peak, int* err)
{
    int scratch = 0;
    int* code = err != nullptr ? err : &scratch;
    *code = 0;
    if (path == nullptr || *path == '\0' || !std::isfinite(track_gain_db) || !(track_peak >= 0.0)) {
        *code = KEL_ERR_PARAMETER;
        return *code;
    }
    const bool album = std::isfinite(album_gain_db) && album_peak >= 0.0;
    try {
        *code = KEL::LoudnessTags::write(path, {track_gain_db, track_peak, album, album_gain_db, album_peak});
    } catch (const std::bad_alloc&) {
        *code = KEL_ERR_UNKNOWN;
    } catch (...) {
        *code = KEL_ERR_INTERNAL;
    }
    return *code;
}

int kel_tags_set_track(const char* path, const char* title, const char* artist, int track, int* err)
{
    int scratch = 0;
    int* code = err != nullptr ? err : &scratch;
    *code = 0;
    if (path == nullptr || *path == '\0' || track < 0) {
        *code = KEL_ERR_PARAMETER;
        return *code;
    }
    try {
        *code = KEL::TrackTags::write(path, {title, artist, static_cast<unsigned>(track)});
    } catch (const std::bad_alloc&) {
        *code = KEL_ERR_UNKNOWN;
    } catch (...) {
        *code = KEL_ERR_INTERNAL;
    }
    return *code;
}

} // extern "C"
