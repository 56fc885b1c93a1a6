#include "tags/aifftextchunks.h"

#include <tstring.h>
#include <tstringlist.h>

#include <algorithm>

namespace KEL {

namespace {

const struct {
    const char* key;
    const char* id;
} kFields[] = {{"TITLE", "NAME"}, {"ARTIST", "AUTH"}, {"COMMENT", "ANNO"}};

// The chunks carry bytes with no stated encoding: UTF-8 where they are
// valid UTF-8 (plain ASCII included), else the Latin-1 of older writers.
bool valid_utf8(const TagLib::ByteVector& bytes)
{
    size_t follow = 0;
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        if (follow > 0) {
            if ((b & 0xC0) != 0x80)
                return false;
            --follow;
        } else if (b >= 0xC2 && b <= 0xDF) {
            follow = 1;
        } else if (b >= 0xE0 && b <= 0xEF) {
            follow = 2;
        } else if (b >= 0xF0 && b <= 0xF4) {
            follow = 3;
        } else if (b >= 0x80) {
            return false;
        }
    }
    return follow == 0;
}

// Writers pad to an even length or end the text with a zero.
TagLib::ByteVector trimmed(TagLib::ByteVector bytes)
{
    while (!bytes.isEmpty() && bytes[bytes.size() - 1] == '\0')
        bytes.resize(bytes.size() - 1);
    return bytes;
}

TagLib::String text_of(const TagLib::ByteVector& chunk)
{
    const TagLib::ByteVector bytes = trimmed(chunk);
    return TagLib::String(bytes, valid_utf8(bytes) ? TagLib::String::UTF8 : TagLib::String::Latin1);
}

} // namespace

AiffTextChunks::AiffTextChunks(TagLib::IOStream* stream) : TagLib::RIFF::AIFF::File(stream, false) {}

bool AiffTextChunks::is_text(const TagLib::ByteVector& id)
{
    return id == "NAME" || id == "AUTH" || id == "(c) " || id == "ANNO";
}

std::vector<AiffTextChunks::Chunk> AiffTextChunks::chunks()
{
    std::vector<Chunk> found;
    if (!isValid())
        return found;
    for (unsigned int i = 0; i < chunkCount(); ++i)
        if (is_text(chunkName(i)))
            found.push_back({chunkName(i), chunkData(i)});
    return found;
}

void AiffTextChunks::replace(const std::vector<Chunk>& chunks)
{
    for (unsigned int i = chunkCount(); i-- > 0;)
        if (is_text(chunkName(i)))
            removeChunk(i);
    // TagLib appends a second chunk of one name only for LIST; given one
    // it rewrites the first. Several ANNO chunks therefore go as one, their
    // texts a line each.
    std::vector<Chunk> merged;
    for (const Chunk& chunk : chunks) {
        auto same = std::find_if(merged.begin(), merged.end(), [&](const Chunk& c) { return c.id == chunk.id; });
        if (same == merged.end()) {
            merged.push_back(chunk);
            continue;
        }
        same->text = trimmed(same->text);
        same->text.append('\n');
        same->text.append(trimmed(chunk.text));
    }
    for (const Chunk& chunk : merged)
        setChunkData(chunk.id, chunk.text);
}

TagLib::PropertyMap AiffTextChunks::fields(const std::vector<Chunk>& chunks)
{
    TagLib::PropertyMap map;
    for (const auto& field : kFields) {
        for (const Chunk& chunk : chunks) {
            if (chunk.id != field.id)
                continue;
            const TagLib::String text = text_of(chunk.text);
            if (!text.isEmpty())
                map.insert(field.key, TagLib::StringList(text));
            break;
        }
    }
    return map;
}

std::vector<AiffTextChunks::Chunk> AiffTextChunks::from_fields(const TagLib::PropertyMap& fields)
{
    std::vector<Chunk> chunks;
    for (const auto& field : kFields) {
        const auto it = fields.find(field.key);
        if (it != fields.end() && !it->second.isEmpty() && !it->second.front().isEmpty())
            chunks.push_back({TagLib::ByteVector(field.id), it->second.front().data(TagLib::String::UTF8)});
    }
    return chunks;
}

} // namespace KEL
