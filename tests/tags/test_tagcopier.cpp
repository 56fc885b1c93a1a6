// kel_tags_copy on what the tool's tests do not reach: APE tags, a target
// that had tags of its own, the codes, and targets left byte for byte as
// they were. The files are read back with TagLib itself.
#include "kel.h"

#include "common/oracle.h"
#include "common/testsupport.h"

#include <apetag.h>
#include <id3v1tag.h>
#include <id3v2tag.h>
#include <mpegfile.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace KEL::test {
namespace {

// A copy of a file in the scratch folder, to be changed by a test.
std::string copy_of(const std::string& path, const std::string& name)
{
    const std::string copy = scratch().path(name);
    write_file(copy, read_file(path));
    return copy;
}

ino_t inode_of(const std::string& path)
{
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_ino;
}

// lame's ID3v2 and ID3v1 tags, and an APE tag added with TagLib.
std::string source_with_three_tags()
{
    const std::string path = copy_of(
        lame_file("tagcopier-source", 44100, 2, {"-b", "128", "--tt", "Source title", "--ty", "1999"}),
        "three-tags.mp3");
    TagLib::MPEG::File file(path.c_str(), false);
    file.APETag(true)->addValue("CATALOG", "KEL-1");
    EXPECT_TRUE(file.save(TagLib::MPEG::File::APE, TagLib::File::StripNone, TagLib::ID3v2::v4,
                          TagLib::File::DoNotDuplicate));
    return path;
}

TEST(TagCopier, EveryMp3TagTypeReplacesTheTargetsOwn)
{
    const std::string source = source_with_three_tags();
    const std::string target = copy_of(
        lame_file("tagcopier-target", 44100, 2, {"-b", "128", "--tt", "Target title", "--ta", "Target artist"}),
        "target.mp3");
    int err = -1;
    EXPECT_EQ(kel_tags_copy(source.c_str(), target.c_str(), &err), 0);
    EXPECT_EQ(err, 0);
    {
        TagLib::MPEG::File file(target.c_str(), false);
        ASSERT_TRUE(file.hasID3v2Tag() && file.hasID3v1Tag() && file.hasAPETag());
        EXPECT_EQ(file.ID3v2Tag()->title(), "Source title");
        // Replaced, not merged: the target's artist is gone from every tag.
        EXPECT_EQ(file.ID3v2Tag()->artist(), "");
        EXPECT_EQ(file.ID3v1Tag()->title(), "Source title");
        EXPECT_EQ(file.ID3v1Tag()->artist(), "");
        EXPECT_EQ(file.ID3v1Tag()->year(), 1999u);
        EXPECT_EQ(file.APETag()->itemListMap()["CATALOG"].toString(), "KEL-1");
    }
    EXPECT_TRUE(ffmpeg_decodes_cleanly(target));

    // A source without tags leaves none; a broken tag block warns and also
    // leaves none, so a target never keeps tags of another file.
    const std::string plain = lame_file("tagcopier-plain", 44100, 2, {"-b", "128"});
    const std::string broken = scratch().path("broken.mp3");
    Bytes header = {'I', 'D', '3', 4, 0, 0, 0, 0, 0, 100};
    write_file(broken, concat(concat(header, Bytes(100, 0x01)), read_file(plain)));
    for (const std::string& from : {plain, broken}) {
        const std::string tagged = copy_of(source, "retagged.mp3");
        EXPECT_EQ(kel_tags_copy(from.c_str(), tagged.c_str(), nullptr), from == plain ? 0 : KEL_ERR_SAVED_WITH_ERRORS);
        TagLib::MPEG::File file(tagged.c_str(), false);
        EXPECT_FALSE(file.hasID3v2Tag() || file.hasID3v1Tag() || file.hasAPETag()) << from;
        EXPECT_TRUE(ffmpeg_decodes_cleanly(tagged)) << from;
    }
}

TEST(TagCopier, CodesAndTargetsLeftAsTheyWere)
{
    const std::string source = source_with_three_tags();
    const std::string plain = lame_file("tagcopier-plain", 44100, 2, {"-b", "128"});
    const std::string missing = scratch().path("missing.mp3");
    int err = 0;
    EXPECT_EQ(kel_tags_copy(nullptr, plain.c_str(), &err), KEL_ERR_PARAMETER);
    EXPECT_EQ(err, KEL_ERR_PARAMETER);
    EXPECT_EQ(kel_tags_copy(missing.c_str(), plain.c_str(), &err), KEL_ERR_OPEN);
    EXPECT_EQ(kel_tags_copy(source.c_str(), missing.c_str(), &err), KEL_ERR_OPEN);
    EXPECT_EQ(kel_tags_copy(source.c_str(), scratch().root().c_str(), &err), KEL_ERR_IS_DIRECTORY);
    EXPECT_FALSE(file_exists(missing));

    // Nothing to write: the very same file stays.
    const std::string untouched = copy_of(plain, "untouched.mp3");
    const ino_t inode = inode_of(untouched);
    EXPECT_EQ(kel_tags_copy(plain.c_str(), untouched.c_str(), &err), 0);
    EXPECT_EQ(inode_of(untouched), inode);

    // CAF takes no tags: a warning, the file unchanged, no scratch copy left.
    const std::string caf = scratch().path("target.caf");
    ASSERT_EQ(run_tool({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", test_wave("tagcopier-source", 44100, 2),
                        "-c:a", "pcm_s16be", caf}),
              0);
    const Bytes before = read_file(caf);
    const size_t entries = scratch().entries().size();
    EXPECT_EQ(kel_tags_copy(source.c_str(), caf.c_str(), &err), KEL_ERR_SAVED_WITH_ERRORS);
    EXPECT_FALSE(KELErrorIsFatal(err));
    EXPECT_EQ(read_file(caf), before);
    EXPECT_EQ(scratch().entries().size(), entries);
}

} // namespace
} // namespace KEL::test
