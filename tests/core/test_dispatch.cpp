// Format dispatch: the fixed asking order, which format opens a file, and
// which error survives, checked with scripted stand-in formats.
#include "core/bshandlemem.h"
#include "api/formatdispatch.h"
#include "core/fourcc.h"
#include "fakeformat.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

enum Slot { AIFF, CAF, WAVE, AAC, ALAC, MP3, kSlots };
const char* const kNames[kSlots] = {"AIFF", "CAF", "WAVE", "AAC", "ALAC", "MP3"};

// What each stand-in answers (detect "Efmu", open and info 0, three
// packets unless scripted otherwise), and the calls made, in order.
struct Script {
    std::map<int, int> detect, open_err, packets, info_err;
    std::vector<std::string> calls;
    int clips_deleted = 0;
} script;

class CountedClip : public FakeClip {
public:
    CountedClip() : FakeClip(44100.0f, 1024, nullptr) {}
    ~CountedClip() override { ++script.clips_deleted; }
};

int answer(const std::map<int, int>& m, int slot, int otherwise)
{
    const auto found = m.find(slot);
    return found == m.end() ? otherwise : found->second;
}

template <int S>
int detect(const char*)
{
    script.calls.push_back(std::string("detect ") + kNames[S]);
    return answer(script.detect, S, fourcc("Efmu"));
}

template <int S>
Clip* open(const char*, int* err, _kel_progress_ext_t*)
{
    script.calls.push_back(std::string("open ") + kNames[S]);
    *err = answer(script.open_err, S, 0);
    if (*err != 0)
        return nullptr;
    auto* clip = new CountedClip;
    for (int i = answer(script.packets, S, 3); i > 0; --i) {
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
    return answer(script.info_err, S, 0);
}

// Makes a clip with its width in channels, or fails with the width as code
// (0: failure without a code).
template <int S>
Clip* create(int channels, float, int bits, int bit_rate, int flag, int* err)
{
    script.calls.push_back(std::string("create ") + kNames[S] + " " + std::to_string(channels) + " " +
                           std::to_string(bits) + " " + std::to_string(bit_rate) + " " + std::to_string(flag));
    if (bits <= 0) {
        *err = -bits;
        return nullptr;
    }
    return new CountedClip;
}

template <int S>
ClipFormat format(int corrupt_code)
{
    return ClipFormat{&detect<S>, &open<S>, &info<S>, corrupt_code, S + 1, &create<S>};
}

struct Case {
    const char* what;
    bool file_info; // else open
    std::map<int, int> detect, open_err, packets, info_err;
    int code;
    int made; // the format whose clip comes back (open), or whose record is filled (file_info); -1 none
    std::vector<std::string> last_calls; // the trace ends with these
};

TEST(Dispatch, AskingOrderOpeningAndSurvivingErrors)
{
    const int efmu = fourcc("Efmu"), efms = fourcc("Efms");
    const std::vector<std::string> all_detects = {"detect AIFF", "detect CAF", "detect WAVE",
                                                  "detect AAC",  "detect ALAC", "detect MP3"};
    const std::vector<Case> cases = {
        {"nobody's file: the MP3 reader's code", false, {}, {}, {}, {}, efmu, -1, all_detects},
        {"the first that recognises it opens", false, {{CAF, 0}, {WAVE, 0}}, {}, {}, {}, 0, CAF, {"detect CAF", "open CAF"}},
        {"a corrupt PCM file is never offered to MP3", false, {{WAVE, 0}, {MP3, 0}}, {{WAVE, fourcc("Ewav")}}, {}, {},
         fourcc("Ewav"), -1, {"open WAVE"}},
        {"other PCM failures fall through to MP3", false, {{AIFF, 0}, {MP3, 0}}, {{AIFF, fourcc("Eeof")}}, {}, {}, 0,
         MP3, {"open MP3"}},
        {"MPEG-4 failures fall through to MP3", false, {{AAC, 0}, {MP3, 0}}, {{AAC, fourcc("Eaac")}}, {}, {}, 0, MP3,
         {"detect AAC", "open AAC", "detect MP3", "open MP3"}},
        {"an unsupported variant wins over MP3's verdict", false, {{AIFF, 0}, {MP3, fourcc("Emp3")}},
         {{AIFF, efms}}, {}, {}, efms, -1, {"detect MP3"}},
        {"... and over MP3 failing to open", false, {{AIFF, 0}, {MP3, 0}}, {{AIFF, efms}, {MP3, fourcc("Emp3")}}, {},
         {}, efms, -1, {"open MP3"}},
        {"... but an MP3 that opens is kept", false, {{AIFF, 0}, {MP3, 0}}, {{AIFF, efms}}, {}, {}, 0, MP3,
         {"open MP3"}},
        {"a clip without packets is empty", false, {{WAVE, 0}}, {}, {{WAVE, 0}}, {}, fourcc("Empt"), -1,
         {"open WAVE"}},
        {"file info of a detected PCM format is final", true, {{CAF, 0}, {MP3, 0}}, {}, {}, {{CAF, fourcc("Ecaf")}},
         fourcc("Ecaf"), -1, {"detect CAF", "info CAF"}},
        {"... even for codes that open would retry", true, {{CAF, 0}, {MP3, 0}}, {}, {}, {{CAF, fourcc("Eeof")}},
         fourcc("Eeof"), -1, {"info CAF"}},
        {"file info of MPEG-4 falls through on failure", true, {{ALAC, 0}, {MP3, 0}}, {}, {}, {{ALAC, fourcc("Ealc")}},
         0, MP3, {"info MP3"}},
        {"file info keeps an unsupported variant", true, {{AAC, efms}, {ALAC, 0}}, {}, {}, {{ALAC, efms}}, efms, -1,
         {"info ALAC", "detect MP3"}},
    };
    FormatDispatch dispatch({format<AIFF>(fourcc("Eaif")), format<CAF>(fourcc("Ecaf")), format<WAVE>(fourcc("Ewav")),
                             format<AAC>(0), format<ALAC>(0)},
                            format<MP3>(0));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        script = Script{c.detect, c.open_err, c.packets, c.info_err, {}, 0};
        int err = -1;
        _kel_clip_info_t record{};
        Clip* clip = nullptr;
        if (c.file_info) {
            err = dispatch.file_info("x", &record, nullptr);
        } else {
            clip = dispatch.open("x", &err, nullptr);
        }
        EXPECT_EQ(err, c.code);
        if (c.file_info) {
            if (c.made >= 0) {
                EXPECT_EQ(record.format, c.made + 100);
            }
        } else if (c.made < 0) {
            EXPECT_EQ(clip, nullptr);
        } else {
            ASSERT_NE(clip, nullptr);
            EXPECT_EQ(clip->channels, c.made);
            clip->close(nullptr);
            delete clip;
        }
        ASSERT_GE(script.calls.size(), c.last_calls.size());
        EXPECT_EQ(std::vector<std::string>(script.calls.end() - static_cast<long>(c.last_calls.size()),
                                           script.calls.end()),
                  c.last_calls);
        // Every clip made is deleted again (the empty one by the dispatch).
        EXPECT_EQ(script.clips_deleted, c.made >= 0 && !c.file_info ? 1 : c.code == fourcc("Empt") ? 1 : 0);
    }
    // A null record gets a scratch one.
    script = Script{{{ALAC, 0}}, {}, {}, {}, {}, 0};
    EXPECT_EQ(dispatch.file_info("x", nullptr, nullptr), 0);
}

TEST(Dispatch, CreateFindsTheFormatByNumber)
{
    FormatDispatch dispatch({format<AIFF>(0), format<WAVE>(0)}, format<MP3>(0));
    struct {
        int number, bits, code;
        const char* asked; // the format whose maker runs; null for none
    } const cases[] = {
        {WAVE + 1, 16, 0, "WAVE"},
        {MP3 + 1, 16, 0, "MP3"},              // the fallback row is in the table too
        {CAF + 1, 16, fourcc("Eclt"), nullptr}, // a number no row has
        {0, 16, fourcc("Eclt"), nullptr},
        {AIFF + 1, -fourcc("Eprm"), fourcc("Eprm"), "AIFF"},
        {AIFF + 1, 0, fourcc("EUnk"), "AIFF"}, // failed without saying why
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.number);
        for (bool with_word : {true, false}) {
            script = Script{};
            int err = 12345;
            Clip* clip = dispatch.create_empty(c.number, 2, 44100.0f, c.bits, 128, 1, with_word ? &err : nullptr);
            EXPECT_EQ(clip != nullptr, c.code == 0);
            if (with_word) {
                EXPECT_EQ(err, c.code == 0 ? 12345 : c.code) << "the error word is written only on failure";
            }
            std::vector<std::string> calls;
            if (c.asked != nullptr)
                calls.push_back(std::string("create ") + c.asked + " 2 " + std::to_string(c.bits) + " 128 1");
            EXPECT_EQ(script.calls, calls);
            if (clip != nullptr) {
                clip->close(nullptr);
                delete clip;
            }
        }
    }
}

TEST(Dispatch, TheBuiltInFormatsRefuseAnEmptyFile)
{
    int err = 0;
    EXPECT_EQ(FormatDispatch::standard().open("/dev/null", &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Efmu"));
    EXPECT_EQ(FormatDispatch::standard().file_info("/dev/null", nullptr, nullptr), fourcc("Efmu"));
}

} // namespace
