// An AIFF file as TagLib opens it, with its text chunks: NAME, AUTH,
// "(c) " and ANNO. TagLib's AIFF class reads and writes the ID3 chunk only;
// the RIFF base it derives from holds every chunk, and this class reaches
// that list for the text chunks, so that they too go through TagLib's
// reading and writing of the file.
#ifndef KEL_TAGS_AIFFTEXTCHUNKS_H
#define KEL_TAGS_AIFFTEXTCHUNKS_H

#include <aifffile.h>
#include <tbytevector.h>
#include <tpropertymap.h>

#include <vector>

namespace KEL {

class AiffTextChunks : public TagLib::RIFF::AIFF::File {
public:
    struct Chunk {
        TagLib::ByteVector id;
        TagLib::ByteVector text;
    };

    // Opens without reading the audio's properties; the stream must
    // outlive the object.
    explicit AiffTextChunks(TagLib::IOStream* stream);

    // The text chunks, in the order of the file.
    std::vector<Chunk> chunks();
    // Removes every text chunk and appends `chunks` in order, those of one
    // name as one chunk. Like the rest of TagLib's RIFF chunk edits, this
    // writes to the file at once.
    void replace(const std::vector<Chunk>& chunks);

    // The common fields the chunks hold: NAME the title, AUTH the artist,
    // the first ANNO the comment.
    static TagLib::PropertyMap fields(const std::vector<Chunk>& chunks);
    // The chunks for those fields, as UTF-8 (what ffmpeg writes and reads).
    static std::vector<Chunk> from_fields(const TagLib::PropertyMap& fields);

private:
    static bool is_text(const TagLib::ByteVector& id);
};

} // namespace KEL

#endif
