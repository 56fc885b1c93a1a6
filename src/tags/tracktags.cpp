#include "tags/tracktags.h"

#include "tags/tagcopier.h"

#include <aifffile.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mpegfile.h>
#include <wavfile.h>

namespace KEL {

namespace {

using Container = TagCopier::Container;

void set(TagLib::Tag& tag, const TrackFields& f)
{
    if (f.title != nullptr)
        tag.setTitle(TagLib::String(f.title, TagLib::String::UTF8));
    if (f.artist != nullptr)
        tag.setArtist(TagLib::String(f.artist, TagLib::String::UTF8));
    if (f.track != 0)
        tag.setTrack(f.track);
}

// Writes the fields into the file at path; false when TagLib cannot.
bool save(Container container, TagLib::IOStream& stream, const TrackFields& fields)
{
    switch (container) {
    case Container::MPEG: {
        TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance(), false);
        if (!file.isValid())
            return false;
        file.ID3v2Tag(true);
        set(*file.tag(), fields); // every tag the file has, ID3v2 among them
        return file.save(TagLib::MPEG::File::AllTags, TagLib::File::StripNone, TagLib::ID3v2::v4,
                         TagLib::File::DoNotDuplicate);
    }
    case Container::MP4: {
        TagLib::MP4::File file(&stream, false);
        if (!file.isValid() || file.tag() == nullptr)
            return false;
        set(*file.tag(), fields);
        return file.save();
    }
    case Container::WAVE: {
        TagLib::RIFF::WAV::File file(&stream, false);
        if (!file.isValid())
            return false;
        set(*file.tag(), fields); // the ID3 chunk and the INFO list alike
        return file.save(TagLib::RIFF::WAV::File::AllTags, TagLib::File::StripNone);
    }
    case Container::AIFF: {
        TagLib::RIFF::AIFF::File file(&stream, false);
        if (!file.isValid() || file.tag() == nullptr)
            return false;
        set(*file.tag(), fields);
        return file.save();
    }
    default:
        return false;
    }
}

} // namespace

int TrackTags::write(const std::string& path, const TrackFields& fields)
{
    return TagCopier::edit(path, [&](Container container, TagLib::IOStream& stream) {
        return save(container, stream, fields);
    });
}

} // namespace KEL
