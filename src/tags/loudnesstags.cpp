#include "tags/loudnesstags.h"

#include "tags/tagcopier.h"

#include <aifffile.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mp4tag.h>
#include <mpegfile.h>
#include <textidentificationframe.h>
#include <wavfile.h>

#include <cctype>
#include <cstdio>
#include <utility>
#include <vector>

namespace KEL {

namespace {

using Container = TagCopier::Container;
using Fields = std::vector<std::pair<std::string, std::string>>;

Fields fields_of(const ReplayGainValues& v)
{
    char text[4][32];
    std::snprintf(text[0], sizeof text[0], "%.2f dB", v.track_gain_db);
    std::snprintf(text[1], sizeof text[1], "%.6f", v.track_peak);
    std::snprintf(text[2], sizeof text[2], "%.2f dB", v.album_gain_db);
    std::snprintf(text[3], sizeof text[3], "%.6f", v.album_peak);
    Fields f = {{"REPLAYGAIN_TRACK_GAIN", text[0]}, {"REPLAYGAIN_TRACK_PEAK", text[1]}};
    if (v.album) {
        f.emplace_back("REPLAYGAIN_ALBUM_GAIN", text[2]);
        f.emplace_back("REPLAYGAIN_ALBUM_PEAK", text[3]);
    }
    return f;
}

void set_txxx(TagLib::ID3v2::Tag& tag, const Fields& fields)
{
    for (const auto& [name, value] : fields) {
        const TagLib::String key(name, TagLib::String::UTF8);
        if (auto* old = TagLib::ID3v2::UserTextIdentificationFrame::find(&tag, key))
            tag.removeFrame(old);
        auto* frame = new TagLib::ID3v2::UserTextIdentificationFrame(TagLib::String::UTF8);
        frame->setDescription(key);
        frame->setText(TagLib::String(value, TagLib::String::UTF8));
        tag.addFrame(frame);
    }
}

// Writes the fields into the file at path; false when TagLib cannot.
bool save(Container container, TagLib::IOStream& stream, const Fields& fields)
{
    switch (container) {
    case Container::MPEG: {
        TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance(), false);
        if (!file.isValid())
            return false;
        set_txxx(*file.ID3v2Tag(true), fields);
        return file.save(TagLib::MPEG::File::AllTags, TagLib::File::StripNone);
    }
    case Container::MP4: {
        TagLib::MP4::File file(&stream, false);
        if (!file.isValid() || file.tag() == nullptr)
            return false;
        for (const auto& [name, value] : fields) {
            std::string key = "----:com.apple.iTunes:";
            for (const char c : name)
                key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            file.tag()->setItem(TagLib::String(key, TagLib::String::UTF8), TagLib::MP4::Item(TagLib::StringList(TagLib::String(value, TagLib::String::UTF8))));
        }
        return file.save();
    }
    case Container::WAVE: {
        TagLib::RIFF::WAV::File file(&stream, false);
        if (!file.isValid())
            return false;
        set_txxx(*file.ID3v2Tag(), fields);
        return file.save(TagLib::RIFF::WAV::File::AllTags, TagLib::File::StripNone);
    }
    case Container::AIFF: {
        TagLib::RIFF::AIFF::File file(&stream, false);
        if (!file.isValid() || file.tag() == nullptr)
            return false;
        set_txxx(*file.tag(), fields);
        return file.save();
    }
    default:
        return false;
    }
}

} // namespace

int LoudnessTags::write(const std::string& path, const ReplayGainValues& values)
{
    return TagCopier::edit(path, [&](Container container, TagLib::IOStream& stream) {
        return save(container, stream, fields_of(values));
    });
}

} // namespace KEL
