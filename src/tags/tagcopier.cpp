#include "tags/tagcopier.h"

#include "tags/aifftextchunks.h"
#include "tags/scratchcopy.h"

#include "kel.h"

#include <apetag.h>
#include <attachedpictureframe.h>
#include <id3v1tag.h>
#include <id3v2framefactory.h>
#include <id3v2header.h>
#include <id3v2tag.h>
#include <infotag.h>
#include <mp4coverart.h>
#include <mp4file.h>
#include <mp4tag.h>
#include <mpegfile.h>
#include <textidentificationframe.h>
#include <tfilestream.h>
#include <tpropertymap.h>
#include <wavfile.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace KEL {

using TagLib::ByteVector;
using TagLib::String;

struct TagCopier::Snapshot {
    Container container = Container::Unknown;
    // Frames rendered as ID3v2.4 (TagLib reads every version into that).
    std::vector<ByteVector> id3v2_frames;
    TagLib::ID3v2::Version id3v2_version = TagLib::ID3v2::v4;
    TagLib::PropertyMap id3v1;
    TagLib::APE::ItemListMap ape;
    TagLib::RIFF::Info::FieldListMap info;
    TagLib::MP4::ItemMap mp4;
    std::vector<AiffTextChunks::Chunk> aiff_text;
    // What maps across containers.
    TagLib::PropertyMap common;
    ByteVector cover;
    String cover_mime;

    bool empty() const
    {
        return id3v2_frames.empty() && id3v1.isEmpty() && ape.isEmpty() && info.isEmpty() && mp4.isEmpty() &&
               aiff_text.empty() && common.isEmpty() && cover.isEmpty();
    }
};

namespace {

using Snapshot = TagCopier::Snapshot;
using Container = TagCopier::Container;

// The fields every container has a place for; the cover goes separately.
const char* const kCommonKeys[] = {"TITLE", "ARTIST", "ALBUM", "TRACKNUMBER", "DATE", "GENRE", "COMMENT"};

// Where RIFF INFO keeps those fields, as TagLib and ffmpeg name them.
// TagLib's own INFO properties go through whole numbers for the track and
// lose "3/12" on the way, so the chunk's texts are taken as they are.
const struct {
    const char* key;
    const char* id;
} kInfoIds[] = {{"TITLE", "INAM"}, {"ARTIST", "IART"}, {"ALBUM", "IPRD"}, {"TRACKNUMBER", "IPRT"},
                {"DATE", "ICRD"},  {"GENRE", "IGNR"},  {"COMMENT", "ICMT"}};

TagLib::PropertyMap info_fields(const TagLib::RIFF::Info::Tag& info)
{
    TagLib::PropertyMap common;
    for (const auto& field : kInfoIds) {
        const String text = info.fieldText(field.id);
        if (!text.isEmpty())
            common.insert(field.key, TagLib::StringList(text));
    }
    return common;
}

void set_info_fields(TagLib::RIFF::Info::Tag& info, const TagLib::PropertyMap& common)
{
    for (const auto& field : kInfoIds) {
        const auto it = common.find(field.key);
        if (it != common.end() && !it->second.isEmpty())
            info.setFieldText(field.id, it->second.front());
    }
}

TagLib::PropertyMap common_fields(const TagLib::PropertyMap& all)
{
    TagLib::PropertyMap common;
    for (const char* key : kCommonKeys) {
        const auto it = all.find(key);
        if (it != all.end() && !it->second.isEmpty())
            common.insert(key, it->second);
    }
    return common;
}

int open_code(int error)
{
    if (error == EACCES || error == EPERM)
        return KEL_ERR_OPEN_READ;
    if (error == EISDIR)
        return KEL_ERR_IS_DIRECTORY;
    return KEL_ERR_OPEN;
}

// The ID3v2 tag at the start of an MPEG file as TagLib sees it is taken as
// unreadable when its header is refused (size bytes that are not 7-bit),
// when it claims more bytes than the file holds, or when TagLib finds no
// frame in a body that is not all padding: TagLib stops quietly at the
// first frame it cannot parse, and dropping a whole tag unannounced is
// what the caller must hear about.
bool id3v2_unreadable(TagLib::MPEG::File& file, TagLib::IOStream& stream)
{
    stream.seek(0);
    const ByteVector head = stream.readBlock(10);
    if (!head.startsWith(TagLib::ID3v2::Header::fileIdentifier()))
        return false;
    if (!file.hasID3v2Tag())
        return true;
    const TagLib::ID3v2::Tag* tag = file.ID3v2Tag();
    const unsigned int body = tag->header()->tagSize();
    if (body == 0)
        return head.mid(6, 4) != ByteVector(4, '\0');
    if (static_cast<long long>(tag->header()->completeTagSize()) > static_cast<long long>(stream.length()))
        return true;
    if (!tag->frameList().isEmpty())
        return false;
    stream.seek(10);
    const ByteVector data = stream.readBlock(body);
    for (const char c : data)
        if (c != '\0')
            return true;
    return false;
}

String mime_of(TagLib::MP4::CoverArt::Format format)
{
    switch (format) {
    case TagLib::MP4::CoverArt::JPEG:
        return "image/jpeg";
    case TagLib::MP4::CoverArt::PNG:
        return "image/png";
    case TagLib::MP4::CoverArt::BMP:
        return "image/bmp";
    case TagLib::MP4::CoverArt::GIF:
        return "image/gif";
    default:
        return String();
    }
}

// MPEG-4 stores a picture's format as a type code; the MIME type of an
// ID3v2 picture names it, and a missing or odd name is settled by the
// picture's own signature.
TagLib::MP4::CoverArt::Format format_of(const String& mime, const ByteVector& data)
{
    const String m = mime.upper();
    if (m == "IMAGE/JPEG" || m == "IMAGE/JPG" || data.startsWith(ByteVector("\xFF\xD8\xFF", 3)))
        return TagLib::MP4::CoverArt::JPEG;
    if (m == "IMAGE/PNG" || data.startsWith(ByteVector("\x89PNG", 4)))
        return TagLib::MP4::CoverArt::PNG;
    if (m == "IMAGE/BMP" || data.startsWith("BM"))
        return TagLib::MP4::CoverArt::BMP;
    if (m == "IMAGE/GIF" || data.startsWith("GIF8"))
        return TagLib::MP4::CoverArt::GIF;
    return TagLib::MP4::CoverArt::Unknown;
}

// Frames that describe the audio's length or bytes, which an edited copy
// no longer has: kept, they would send players to the wrong places.
bool describes_the_audio(const ByteVector& id)
{
    return id == "TLEN" || id == "MLLT" || id == "SEEK" || id == "ASPI";
}

// Loudness values measured on the source's audio (ReplayGain, R128, Sound
// Check): an edited or gained copy plays at another loudness, and players
// would apply the old correction to it. Item names as the common players
// spell them, in any case.
bool names_a_loudness(const String& name)
{
    const String n = name.upper();
    return n.startsWith("REPLAYGAIN_") || n.startsWith("R128_") || n.startsWith("----:COM.APPLE.ITUNES:REPLAYGAIN_") ||
           n.startsWith("----:COM.APPLE.ITUNES:R128_") || n == "----:COM.APPLE.ITUNES:ITUNNORM";
}

bool states_a_loudness(const TagLib::ID3v2::Frame& frame)
{
    if (frame.frameID() == "RVA2" || frame.frameID() == "RVAD")
        return true;
    const auto* text = dynamic_cast<const TagLib::ID3v2::UserTextIdentificationFrame*>(&frame);
    return text != nullptr && names_a_loudness(text->description());
}

void take_id3v2(const TagLib::ID3v2::Tag& tag, Snapshot& s)
{
    if (tag.header()->majorVersion() == 3)
        s.id3v2_version = TagLib::ID3v2::v3;
    const TagLib::ID3v2::AttachedPictureFrame* front = nullptr;
    const TagLib::ID3v2::AttachedPictureFrame* first = nullptr;
    for (const TagLib::ID3v2::Frame* frame : tag.frameList()) {
        if (describes_the_audio(frame->frameID()) || states_a_loudness(*frame))
            continue;
        s.id3v2_frames.push_back(frame->render());
        if (const auto* picture = dynamic_cast<const TagLib::ID3v2::AttachedPictureFrame*>(frame)) {
            if (first == nullptr)
                first = picture;
            if (front == nullptr && picture->type() == TagLib::ID3v2::AttachedPictureFrame::FrontCover)
                front = picture;
        }
    }
    if (const auto* cover = front != nullptr ? front : first) {
        s.cover = cover->picture();
        s.cover_mime = cover->mimeType();
    }
}

void take_mp4(const TagLib::MP4::Tag& tag, Snapshot& s)
{
    s.mp4 = tag.itemMap();
    for (const auto& item : TagLib::MP4::ItemMap(s.mp4))
        if (names_a_loudness(item.first))
            s.mp4.erase(item.first);
    const auto covr = s.mp4.find("covr");
    if (covr != s.mp4.end()) {
        const TagLib::MP4::CoverArtList pictures = covr->second.toCoverArtList();
        if (!pictures.isEmpty()) {
            s.cover = pictures.front().data();
            s.cover_mime = mime_of(pictures.front().format());
        }
    }
}

// Reads what an opened TagLib file holds; false when a block is there but
// unreadable.
bool take_tags(Container container, TagLib::IOStream& stream, Snapshot& s)
{
    switch (container) {
    case Container::MPEG: {
        TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance(), false);
        if (!file.isValid() || id3v2_unreadable(file, stream))
            return false;
        if (file.hasID3v2Tag())
            take_id3v2(*file.ID3v2Tag(), s);
        if (file.hasID3v1Tag() && !file.ID3v1Tag()->isEmpty())
            s.id3v1 = file.ID3v1Tag()->properties();
        if (file.hasAPETag()) {
            s.ape = file.APETag()->itemListMap();
            for (const auto& item : TagLib::APE::ItemListMap(s.ape))
                if (names_a_loudness(item.first))
                    s.ape.erase(item.first);
        }
        s.common = common_fields(file.properties());
        return true;
    }
    case Container::MP4: {
        TagLib::MP4::File file(&stream, false);
        if (!file.isValid())
            return false;
        if (file.tag() != nullptr) {
            take_mp4(*file.tag(), s);
            s.common = common_fields(file.tag()->properties());
        }
        return true;
    }
    case Container::WAVE: {
        TagLib::RIFF::WAV::File file(&stream, false);
        if (!file.isValid())
            return false;
        if (file.hasID3v2Tag())
            take_id3v2(*file.ID3v2Tag(), s);
        if (file.hasInfoTag())
            s.info = file.InfoTag()->fieldListMap();
        // The ID3v2 fields win over INFO's where both have one.
        TagLib::PropertyMap fields = file.InfoTag() != nullptr ? info_fields(*file.InfoTag()) : TagLib::PropertyMap();
        if (file.ID3v2Tag() != nullptr)
            for (const auto& item : common_fields(file.ID3v2Tag()->properties()))
                fields.replace(item.first, item.second);
        s.common = fields;
        return true;
    }
    case Container::AIFF: {
        AiffTextChunks file(&stream);
        if (!file.isValid())
            return false;
        s.aiff_text = file.chunks();
        TagLib::PropertyMap fields = AiffTextChunks::fields(s.aiff_text);
        if (file.hasID3v2Tag()) {
            take_id3v2(*file.tag(), s);
            for (const auto& item : common_fields(file.tag()->properties()))
                fields.replace(item.first, item.second);
        }
        s.common = fields;
        return true;
    }
    case Container::CAF:
    case Container::Unknown:
        break;
    }
    return true;
}

// Whether a file already carries tags of its own, which a copy of a file
// without any must still remove.
bool has_tags(Container container, const std::string& path)
{
    TagLib::FileStream stream(path.c_str(), true);
    if (!stream.isOpen())
        return false;
    switch (container) {
    case Container::MPEG: {
        TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance(), false);
        return file.isValid() && (file.hasID3v2Tag() || file.hasID3v1Tag() || file.hasAPETag());
    }
    case Container::MP4: {
        TagLib::MP4::File file(&stream, false);
        return file.isValid() && file.hasMP4Tag();
    }
    case Container::WAVE: {
        TagLib::RIFF::WAV::File file(&stream, false);
        return file.isValid() && (file.hasID3v2Tag() || file.hasInfoTag());
    }
    case Container::AIFF: {
        AiffTextChunks file(&stream);
        return file.isValid() && (file.hasID3v2Tag() || !file.chunks().empty());
    }
    default:
        return false;
    }
}

void clear(TagLib::ID3v2::Tag& tag)
{
    while (!tag.frameList().isEmpty())
        tag.removeFrame(tag.frameList().front());
}

// Fills an ID3v2 tag: the source's frames where it had ID3v2, else, from
// another container, the common fields and the cover. True when the tag
// holds something.
bool fill_id3v2(TagLib::ID3v2::Tag& tag, const Snapshot& s, Container target)
{
    clear(tag);
    if (!s.id3v2_frames.empty()) {
        // The frames were rendered as ID3v2.4, whatever the source's version.
        TagLib::ID3v2::Header header;
        header.setMajorVersion(4);
        for (const ByteVector& data : s.id3v2_frames)
            if (TagLib::ID3v2::Frame* frame = TagLib::ID3v2::FrameFactory::instance()->createFrame(data, &header))
                tag.addFrame(frame);
    } else if (s.container != target) {
        tag.setProperties(s.common);
        if (!s.cover.isEmpty()) {
            auto* picture = new TagLib::ID3v2::AttachedPictureFrame;
            picture->setType(TagLib::ID3v2::AttachedPictureFrame::FrontCover);
            picture->setMimeType(s.cover_mime.isEmpty() ? mime_of(format_of(s.cover_mime, s.cover)) : s.cover_mime);
            picture->setPicture(s.cover);
            tag.addFrame(picture);
        }
    }
    return !tag.isEmpty();
}

bool save_mpeg(TagLib::IOStream& stream, const Snapshot& s)
{
    TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance(), false);
    if (!file.isValid())
        return false;
    int tags = 0;
    if (fill_id3v2(*file.ID3v2Tag(true), s, Container::MPEG))
        tags |= TagLib::MPEG::File::ID3v2;
    if (!s.id3v1.isEmpty()) {
        file.ID3v1Tag(true)->setProperties(s.id3v1);
        tags |= TagLib::MPEG::File::ID3v1;
    }
    if (!s.ape.isEmpty()) {
        TagLib::APE::Tag* ape = file.APETag(true);
        for (const auto& item : TagLib::APE::ItemListMap(ape->itemListMap()))
            ape->removeItem(item.first);
        for (const auto& item : s.ape)
            ape->setItem(item.first, item.second);
        tags |= TagLib::MPEG::File::APE;
    }
    // Tag types left out of `tags` are stripped.
    return file.save(tags, TagLib::File::StripOthers, s.id3v2_version, TagLib::File::DoNotDuplicate);
}

bool save_mp4(TagLib::IOStream& stream, const Snapshot& s)
{
    TagLib::MP4::File file(&stream, false);
    if (!file.isValid() || file.tag() == nullptr)
        return false;
    TagLib::MP4::Tag& tag = *file.tag();
    for (const auto& item : TagLib::MP4::ItemMap(tag.itemMap()))
        tag.removeItem(item.first);
    if (!s.mp4.isEmpty()) {
        for (const auto& item : s.mp4)
            tag.setItem(item.first, item.second);
    } else if (s.container != Container::MP4) {
        tag.setProperties(s.common);
        const TagLib::MP4::CoverArt::Format format = format_of(s.cover_mime, s.cover);
        if (!s.cover.isEmpty() && format != TagLib::MP4::CoverArt::Unknown) {
            TagLib::MP4::CoverArtList pictures;
            pictures.append(TagLib::MP4::CoverArt(format, s.cover));
            tag.setItem("covr", pictures);
        }
    }
    return file.save();
}

bool save_wave(TagLib::IOStream& stream, const Snapshot& s)
{
    TagLib::RIFF::WAV::File file(&stream, false);
    if (!file.isValid() || file.ID3v2Tag() == nullptr || file.InfoTag() == nullptr)
        return false;
    int tags = 0;
    if (fill_id3v2(*file.ID3v2Tag(), s, Container::WAVE))
        tags |= TagLib::RIFF::WAV::File::ID3v2;
    TagLib::RIFF::Info::Tag& info = *file.InfoTag();
    for (const auto& field : info.fieldListMap())
        info.removeField(field.first);
    if (!s.info.isEmpty()) {
        for (const auto& field : s.info)
            info.setFieldText(field.first, field.second);
    } else if (s.container != Container::WAVE) {
        // Many WAVE readers know INFO only, and ffmpeg takes nothing but
        // the picture from an ID3 chunk when INFO is there.
        set_info_fields(info, s.common);
    }
    if (!info.isEmpty())
        tags |= TagLib::RIFF::WAV::File::Info;
    return file.save(static_cast<TagLib::RIFF::WAV::File::TagTypes>(tags), TagLib::File::StripOthers,
                     s.id3v2_version);
}

bool save_aiff(TagLib::IOStream& stream, const Snapshot& s)
{
    AiffTextChunks file(&stream);
    if (!file.isValid() || file.tag() == nullptr)
        return false;
    fill_id3v2(*file.tag(), s, Container::AIFF);
    if (!s.aiff_text.empty())
        file.replace(s.aiff_text);
    else if (s.container != Container::AIFF)
        file.replace(AiffTextChunks::from_fields(s.common));
    else
        file.replace({});
    return file.save(s.id3v2_version);
}

bool save_tags(Container container, TagLib::IOStream& stream, const Snapshot& s)
{
    switch (container) {
    case Container::MPEG:
        return save_mpeg(stream, s);
    case Container::MP4:
        return save_mp4(stream, s);
    case Container::WAVE:
        return save_wave(stream, s);
    case Container::AIFF:
        return save_aiff(stream, s);
    default:
        return false;
    }
}

// TagLib's own reading of what it wrote: the file must parse as before.
bool reads_back(Container container, TagLib::IOStream& stream)
{
    Snapshot ignored;
    return take_tags(container, stream, ignored);
}

} // namespace

TagCopier::TagCopier() : tags_(std::make_unique<Snapshot>()) {}

TagCopier::~TagCopier() = default;

bool TagCopier::empty() const
{
    return tags_->empty();
}

TagCopier::Container TagCopier::source_container() const
{
    return tags_->container;
}

TagCopier::Container TagCopier::container_of(const std::string& path, int& code)
{
    code = 0;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        code = open_code(errno);
        return Container::Unknown;
    }
    if (S_ISDIR(st.st_mode)) {
        code = KEL_ERR_IS_DIRECTORY;
        return Container::Unknown;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        code = open_code(errno);
        return Container::Unknown;
    }
    unsigned char head[12] = {};
    const ssize_t got = ::read(fd, head, sizeof head);
    ::close(fd);
    if (got < 0) {
        code = KEL_ERR_IO;
        return Container::Unknown;
    }
    const auto at = [&](int offset, const char* text) {
        return got >= offset + 4 && std::memcmp(head + offset, text, 4) == 0;
    };
    if (at(0, "RIFF") && at(8, "WAVE"))
        return Container::WAVE;
    if (at(0, "FORM") && (at(8, "AIFF") || at(8, "AIFC")))
        return Container::AIFF;
    if (at(4, "ftyp"))
        return Container::MP4;
    if (at(0, "caff"))
        return Container::CAF;
    // The library opens as MP3 whatever else it opens; an ID3v2 tag or a
    // frame's sync word is what such a file starts with.
    if (got >= 3 && (std::memcmp(head, "ID3", 3) == 0 || (head[0] == 0xFF && (head[1] & 0xE0) == 0xE0)))
        return Container::MPEG;
    return Container::Unknown;
}

int TagCopier::read(const std::string& path)
{
    tags_ = std::make_unique<Snapshot>();
    int code = 0;
    const Container container = container_of(path, code);
    if (code != 0)
        return code;
    tags_->container = container;
    if (container == Container::Unknown || container == Container::CAF)
        return 0;
    TagLib::FileStream stream(path.c_str(), true);
    if (!stream.isOpen())
        return open_code(errno);
    if (!take_tags(container, stream, *tags_)) {
        tags_ = std::make_unique<Snapshot>();
        tags_->container = container;
        return KEL_ERR_SAVED_WITH_ERRORS;
    }
    return 0;
}

int TagCopier::write(const std::string& path) const
{
    int code = 0;
    const Container container = container_of(path, code);
    if (code != 0)
        return code;
    const Snapshot& s = *tags_;
    if (container == Container::Unknown || container == Container::CAF)
        return s.empty() ? 0 : KEL_ERR_SAVED_WITH_ERRORS;
    if (s.empty() && !has_tags(container, path))
        return 0;
    return edit(path, [&](Container c, TagLib::IOStream& stream) {
        return save_tags(c, stream, s) && reads_back(c, stream);
    });
}

int TagCopier::edit(const std::string& path, const std::function<bool(Container, TagLib::IOStream&)>& edit)
{
    int code = 0;
    const Container container = container_of(path, code);
    if (code != 0)
        return code;
    if (container == Container::Unknown || container == Container::CAF)
        return KEL_ERR_UNSUPPORTED;
    ScratchCopy scratch(path);
    if (!scratch.ok() || !edit(container, scratch.stream()) || !scratch.replace())
        return KEL_ERR_SAVED_WITH_ERRORS;
    return 0;
}

int TagCopier::copy(const std::string& from, const std::string& to)
{
    TagCopier copier;
    const int read_code = copier.read(from);
    if (KELErrorIsFatal(read_code))
        return read_code;
    const int write_code = copier.write(to);
    return write_code != 0 ? write_code : read_code;
}

} // namespace KEL
