// Carries the tags of one audio file into another, through TagLib.
//
// Between files of the same container every item TagLib reads goes over
// as it is: ID3v2 frames (pictures included), ID3v1 and APE for MP3, every
// ilst item for MPEG-4, RIFF INFO and ID3 chunks for WAVE, ID3 and text
// chunks for AIFF. ID3v2 frames also go whole between the containers that
// all hold ID3v2 (MP3, WAVE, AIFF). Otherwise the common fields (title,
// artist, album, track, date, genre, comment) map over through TagLib's
// property names, with the front cover picture. ID3v2 frames that state
// the audio's length or byte positions (TLEN, MLLT, SEEK, ASPI) are left
// behind: the target's audio is an edited copy.
//
// The target is never edited in place: the tags are written into a copy
// beside it, which replaces it only once TagLib has saved it completely and
// reads it back as valid. A failed write therefore leaves the target as the
// library saved it.
#ifndef KEL_TAGS_TAGCOPIER_H
#define KEL_TAGS_TAGCOPIER_H

#include <functional>
#include <memory>
#include <string>

namespace TagLib {
class IOStream;
}

namespace KEL {

class TagCopier {
public:
    // The containers told apart by their first bytes; TagLib has no support
    // for CAF, so its files neither give nor take tags.
    enum class Container { Unknown, MPEG, MP4, WAVE, AIFF, CAF };

    TagCopier();
    ~TagCopier();
    TagCopier(const TagCopier&) = delete;
    TagCopier& operator=(const TagCopier&) = delete;

    // Reads the tags of `path`. Returns 0; KEL_ERR_OPEN, KEL_ERR_OPEN_READ or
    // KEL_ERR_IS_DIRECTORY when the file cannot be opened at all; or
    // KEL_ERR_SAVED_WITH_ERRORS when a tag block is there but cannot be
    // read, in which case the copier holds no tags.
    int read(const std::string& path);
    // True when read() found nothing to carry over.
    bool empty() const;
    Container source_container() const;

    // Makes the tags of `path` those read, replacing any it has. Returns 0
    // (also when there was nothing to write and `path` is untouched), the
    // codes of read() when `path` cannot be opened, or
    // KEL_ERR_SAVED_WITH_ERRORS when the tags could not be written; `path`
    // is then unchanged.
    int write(const std::string& path) const;

    // read(from), then write(to). A warning from reading still strips the
    // target's own tags, so that it never carries tags of another file.
    static int copy(const std::string& from, const std::string& to);

    // The container of an open-able file; Unknown for anything else.
    static Container container_of(const std::string& path, int& code);

    // Lets `edit` change the tags of the file at path through TagLib, on a
    // copy that replaces the file only when edit returns true. Returns 0,
    // the codes of container_of, KEL_ERR_UNSUPPORTED for a container that
    // takes no tags, or KEL_ERR_SAVED_WITH_ERRORS (the file unchanged).
    static int edit(const std::string& path, const std::function<bool(Container, TagLib::IOStream&)>& edit);

    // What read() keeps, in TagLib's types; defined in tagcopier.cpp only.
    struct Snapshot;

private:
    std::unique_ptr<Snapshot> tags_;
};

} // namespace KEL

#endif
