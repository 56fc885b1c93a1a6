// Format dispatch: the fixed asking order, which format opens a file, and
// which error survives, checked with scripted stand-in formats.
#include "core/bshandlemem.h"
#include "core/formatdispatch.h"
#include "core/fourcc.h"
#include "fakeformat.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

enum Slot { AIFF, CAF, WAVE, AAC, ALAC, MP3, kSlots };
const char* const kNames[kSlots] = {"AIFF", "CAF", "WAVE", "AAC", "ALAC", "MP3"};

// What each stand-in answers, and the calls made, in order.
struct Script {
    int detect[kSlots];
    int open_err[kSlots];   // code open leaves; 0 makes a clip
    int open_packets[kSlots];
    int info_err[kSlots];
    std::vector<std::string> calls;
    int clips_deleted = 0;
} script;

class CountedClip : public FakeClip {
public:
    CountedClip() : FakeClip(44100.0f, 1024, nullptr) {}
    ~CountedClip() override { ++script.clips_deleted; }
};

template <int S>
int detect(const char*)
{
    script.calls.push_back(std::string("detect ") + kNames[S]);
    return script.detect[S];
}

template <int S>
Clip* open(const char*, int* err, _kel_progress_ext_t*)
{
    script.calls.push_back(std::string("open ") + kNames[S]);
    *err = script.open_err[S];
    if (*err != 0)
        return nullptr;
    auto* clip = new CountedClip;
    for (int i = 0; i < script.open_packets[S]; ++i) {
        auto* h = new BSHandleMem(4);
        auto* p = new FakePacket(44100.0f, 1, h);
        h->release();
        clip->add_packet(p);
        p->release();
    }
    clip->channels = S; // tells the test which format made it
    return clip;
}

template <int S>
int info(const char*, _kel_clip_info_t* record, _kel_progress_ext_t*)
{
    script.calls.push_back(std::string("info ") + kNames[S]);
    record->format = S + 100;
    return script.info_err[S];
}

template <int S>
ClipFormat format(int corrupt_code)
{
    return ClipFormat{&detect<S>, &open<S>, &info<S>, corrupt_code};
}

FormatDispatch make_dispatch()
{
    return FormatDispatch({format<AIFF>(fourcc("Eaif")), format<CAF>(fourcc("Ecaf")),
                           format<WAVE>(fourcc("Ewav")), format<AAC>(0), format<ALAC>(0)},
                          format<MP3>(0));
}

class Dispatch : public ::testing::Test {
protected:
    void SetUp() override
    {
        script = Script{};
        for (int s = 0; s < kSlots; ++s) {
            script.detect[s] = fourcc("Efmu");
            script.open_packets[s] = 3;
        }
    }
    static void close(Clip* clip)
    {
        clip->close(nullptr);
        delete clip;
    }
    FormatDispatch dispatch = make_dispatch();
};

} // namespace

TEST_F(Dispatch, AsksInFixedOrderThenMp3)
{
    int err = 0;
    EXPECT_EQ(dispatch.open("x", &err, nullptr), nullptr);
    const std::vector<std::string> want = {"detect AIFF", "detect CAF", "detect WAVE",
                                           "detect AAC", "detect ALAC", "detect MP3"};
    EXPECT_EQ(script.calls, want);
    EXPECT_EQ(err, fourcc("Efmu")) << "no format recognises it: the MP3 reader's code";
}

TEST_F(Dispatch, FirstRecognisingFormatOpens)
{
    script.detect[CAF] = 0;
    script.detect[WAVE] = 0;
    int err = -1;
    Clip* clip = dispatch.open("x", &err, nullptr);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(clip->channels, CAF);
    EXPECT_EQ(script.calls.back(), "open CAF");
    close(clip);
}

TEST_F(Dispatch, CorruptPcmFileIsNeverOfferedToMp3)
{
    script.detect[WAVE] = 0;
    script.open_err[WAVE] = fourcc("Ewav");
    script.detect[MP3] = 0;
    int err = 0;
    EXPECT_EQ(dispatch.open("x", &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Ewav"));
    EXPECT_EQ(script.calls.back(), "open WAVE");
}

TEST_F(Dispatch, OtherPcmFailuresAndMpeg4FailuresFallThroughToMp3)
{
    script.detect[AIFF] = 0;
    script.open_err[AIFF] = fourcc("Eeof");
    script.detect[MP3] = 0;
    int err = 0;
    Clip* clip = dispatch.open("x", &err, nullptr);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(clip->channels, MP3);
    close(clip);

    script.calls.clear();
    script.detect[AIFF] = fourcc("Efmu");
    script.detect[AAC] = 0;
    script.open_err[AAC] = fourcc("Eaac");
    clip = dispatch.open("x", &err, nullptr);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(err, 0);
    const std::vector<std::string> want = {"detect AIFF", "detect CAF", "detect WAVE", "detect AAC",
                                           "open AAC", "detect MP3", "open MP3"};
    EXPECT_EQ(script.calls, want);
    close(clip);
}

TEST_F(Dispatch, UnsupportedVariantWinsOverMp3Verdict)
{
    script.detect[AIFF] = 0;
    script.open_err[AIFF] = fourcc("Efms");
    script.detect[MP3] = fourcc("Emp3");
    int err = 0;
    EXPECT_EQ(dispatch.open("x", &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Efms"));

    // The same holds when MP3 detects the file but cannot open it.
    script.detect[MP3] = 0;
    script.open_err[MP3] = fourcc("Emp3");
    EXPECT_EQ(dispatch.open("x", &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Efms"));

    // An MP3 that opens is kept.
    script.open_err[MP3] = 0;
    Clip* clip = dispatch.open("x", &err, nullptr);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(err, 0);
    close(clip);
}

TEST_F(Dispatch, ClipWithoutPacketsIsEmptyAndDeleted)
{
    script.detect[WAVE] = 0;
    script.open_packets[WAVE] = 0;
    int err = 0;
    EXPECT_EQ(dispatch.open("x", &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Empt"));
    EXPECT_EQ(script.clips_deleted, 1);
}

TEST_F(Dispatch, FileInfoOfDetectedPcmIsFinal)
{
    script.detect[CAF] = 0;
    script.info_err[CAF] = fourcc("Ecaf");
    script.detect[MP3] = 0;
    _kel_clip_info_t record{};
    EXPECT_EQ(dispatch.file_info("x", &record, nullptr), fourcc("Ecaf"));
    EXPECT_EQ(script.calls.back(), "info CAF");
    script.info_err[CAF] = fourcc("Eeof"); // even codes that open would retry
    EXPECT_EQ(dispatch.file_info("x", &record, nullptr), fourcc("Eeof"));
    EXPECT_EQ(script.calls.back(), "info CAF");
}

TEST_F(Dispatch, FileInfoOfMpeg4FallsThroughOnFailure)
{
    script.detect[ALAC] = 0;
    script.info_err[ALAC] = fourcc("Ealc");
    script.detect[MP3] = 0;
    _kel_clip_info_t record{};
    EXPECT_EQ(dispatch.file_info("x", &record, nullptr), 0);
    EXPECT_EQ(record.format, MP3 + 100);
    script.info_err[ALAC] = 0;
    EXPECT_EQ(dispatch.file_info("x", nullptr, nullptr), 0) << "a null record gets a scratch one";
    EXPECT_EQ(script.calls.back(), "info ALAC");
}

TEST_F(Dispatch, FileInfoKeepsUnsupportedVariant)
{
    script.detect[AAC] = fourcc("Efms");
    script.detect[ALAC] = 0;
    script.info_err[ALAC] = fourcc("Efms");
    EXPECT_EQ(dispatch.file_info("x", nullptr, nullptr), fourcc("Efms"));
}

TEST(DispatchStandard, RefusesEveryFileWhileNoFormatIsBuiltIn)
{
    int err = 0;
    EXPECT_EQ(Clip::open("/dev/null", &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Efmu"));
    EXPECT_EQ(Clip::file_info("/dev/null", nullptr, nullptr), fourcc("Efmu"));
}
