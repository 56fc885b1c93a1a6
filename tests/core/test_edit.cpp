// Copy, cut and insert: packet references moved between clips, the array
// policies, the statistics and the reference counts.
#include "core/fourcc.h"
#include "fakeformat.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

// Appends packets of the given frame counts; packet p's left samples are
// 100p + i (i the frame index) and its right samples their negatives, so
// that every frame of every packet can be recognised after an edit.
void fill(FakeClip& clip, const std::vector<int>& frames, int base = 0)
{
    for (size_t p = 0; p < frames.size(); ++p) {
        std::vector<float> left(static_cast<size_t>(frames[p])), right(left.size());
        for (size_t i = 0; i < left.size(); ++i) {
            left[i] = static_cast<float>(100 * (base + static_cast<int>(p)) + static_cast<int>(i));
            right[i] = -left[i];
        }
        clip.append(left, right);
    }
}

std::vector<Packet*> packets_of(const Clip& clip)
{
    return std::vector<Packet*>(clip.packets, clip.packets + clip.packet_count);
}

void expect_counts(const std::vector<Packet*>& packets, int count)
{
    for (Packet* p : packets)
        EXPECT_EQ(p->retain_count(), count);
}

TEST(ClipCopy, SharesPacketsAndHasItsOwnStatistics)
{
    FakeClip source(44100.0f, 1024, nullptr);
    fill(source, {1152, 1152, 576, 1152});
    for (int i = 0; i < 4; ++i)
        source.packets[i]->bit_rate = i == 2 ? 160000 : 128000;
    source.update_stream_info();
    const FakeClip::Lanes before = source.decode_all();
    int err = 0x12345678;
    Owned whole(source.copy(0, 3, &err));
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(err, 0x12345678) << "no code is set on success";
    EXPECT_NE(dynamic_cast<FakeClip*>(whole.get()), nullptr);
    EXPECT_EQ(whole->backing_file, nullptr);
    EXPECT_EQ(packets_of(*whole), packets_of(source));
    expect_counts(packets_of(source), 2);
    EXPECT_EQ(whole->is_vbr(), 1);
    EXPECT_EQ(whole->duration(), source.duration());
    EXPECT_EQ(whole->bit_rate(), source.bit_rate());
    whole.reset();
    expect_counts(packets_of(source), 1);
    EXPECT_EQ(source.decode_all().left, before.left);

    // A part's figures are its own: fake packets carry bit rate 0 and 8
    // bytes per frame.
    FakeClip other(44100.0f, 1024, nullptr);
    fill(other, {1000, 441, 882, 300});
    Owned part(other.copy(1, 2, &err));
    EXPECT_EQ(packets_of(*part), (std::vector<Packet*>{other.packets[1], other.packets[2]}));
    EXPECT_EQ(part->is_vbr(), 0);
    EXPECT_FLOAT_EQ(part->duration(), static_cast<float>(1323.0 / 44100.0));
    EXPECT_EQ(part->bit_rate(), static_cast<int>(std::lround(1323.0 * 8 * 8 / (1323.0 / 44100.0))));
}

TEST(ClipCopy, BadRangesAreRefusedAndChangeNothing)
{
    FakeClip clip(44100.0f, 1024, nullptr);
    fill(clip, {10, 10, 10, 10, 10});
    const std::vector<Packet*> before = packets_of(clip);
    for (const auto& [first, last] : std::vector<std::pair<int, int>>{{3, 2}, {-1, 0}, {0, 5}, {5, 5}, {-3, -1}}) {
        int err = 0;
        EXPECT_EQ(clip.copy(first, last, &err), nullptr);
        EXPECT_EQ(err, fourcc("EPnm")) << first << ".." << last;
        err = 0;
        EXPECT_EQ(clip.cut(first, last, &err), nullptr);
        EXPECT_EQ(err, fourcc("EPnm")) << first << ".." << last;
    }
    EXPECT_EQ(packets_of(clip), before);
    expect_counts(before, 1);
}

TEST(ClipCut, WholeClipEmptiesTheSourceWhichStaysUsable)
{
    FakeClip clip(44100.0f, 1024, nullptr);
    fill(clip, {100, 200, 300});
    const std::vector<Packet*> before = packets_of(clip);
    int err = 0;
    Owned all(clip.cut(0, 2, &err));
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(packets_of(*all), before);
    expect_counts(before, 1);
    EXPECT_EQ(clip.packet_count, 0);
    EXPECT_EQ(clip.duration(), 0.0f);
    EXPECT_EQ(clip.bit_rate(), 0);
    clip.insert(0, all.get(), &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(packets_of(clip), before);
}

TEST(ClipInsert, PositionsAreClampedAndTheSourceIsLeftAsItWas)
{
    for (const auto& [at, expected_at] : std::vector<std::pair<int, int>>{{-7, 0}, {0, 0}, {2, 2}, {3, 3}, {1000000, 3}}) {
        FakeClip target(44100.0f, 1024, nullptr);
        fill(target, {10, 10, 10});
        FakeClip other(44100.0f, 1024, nullptr);
        fill(other, {20, 30}, 10);
        std::vector<Packet*> expected = packets_of(target);
        const std::vector<Packet*> incoming = packets_of(other);
        expected.insert(expected.begin() + expected_at, incoming.begin(), incoming.end());
        int err = 0;
        target.insert(at, &other, &err);
        EXPECT_EQ(err, 0);
        EXPECT_EQ(packets_of(target), expected) << "at " << at;
        EXPECT_EQ(packets_of(other), incoming);
        expect_counts(incoming, 2);
    }
}

TEST(ClipInsert, IntoAClipWithoutPacketsAndFromAnEmptyClip)
{
    FakeClip other(44100.0f, 1024, nullptr);
    fill(other, {4, 4, 4}, 50);
    int err = 0;
    // Into a clip that has no array at all.
    FakeClip empty(44100.0f, 1024, nullptr);
    empty.insert(3, &other, &err);
    EXPECT_EQ(packets_of(empty), packets_of(other));
    EXPECT_FLOAT_EQ(empty.duration(), static_cast<float>(12.0 / 44100.0));
    // An empty clip inserted changes nothing.
    FakeClip nothing(44100.0f, 1024, nullptr);
    other.insert(1, &nothing, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(other.packet_count, 3);
}

TEST(ClipInsert, RefusalLeavesBothClipsUnchanged)
{
    FakeClip target(44100.0f, 1024, nullptr);
    fill(target, {10, 10});
    FakeClip other(44100.0f, 1024, nullptr);
    fill(other, {10});
    target.refuse_code = fourcc("Ecld");
    const std::vector<Packet*> before = packets_of(target);
    const float duration = target.duration();
    int err = 0;
    target.insert(1, &other, &err);
    EXPECT_EQ(err, fourcc("Ecld"));
    EXPECT_EQ(packets_of(target), before);
    EXPECT_EQ(target.duration(), duration);
    expect_counts(before, 1);
    expect_counts(packets_of(other), 1);
}

TEST(ClipInsert, StatisticsReflectTheCombinedPackets)
{
    FakeClip target(44100.0f, 1024, nullptr), same(44100.0f, 1024, nullptr), faster(44100.0f, 1024, nullptr);
    fill(target, {1152, 1152, 1152});
    fill(same, {1152});
    fill(faster, {576, 576});
    for (Clip* c : {static_cast<Clip*>(&target), static_cast<Clip*>(&same), static_cast<Clip*>(&faster)})
        for (Packet* p : packets_of(*c))
            p->bit_rate = c == &faster ? 192000 : 128000;
    target.update_stream_info();
    int err = 0;
    target.insert(1, &same, &err);
    EXPECT_EQ(target.is_vbr(), 0);
    EXPECT_EQ(target.bit_rate(), 128000);
    EXPECT_FLOAT_EQ(target.duration(), static_cast<float>(4 * 1152 / 44100.0));
    target.insert(0, &faster, &err);
    const double frames = 4 * 1152 + 2 * 576, seconds = frames / 44100.0;
    EXPECT_EQ(target.is_vbr(), 1);
    EXPECT_NEAR(target.duration(), seconds, 1e-6);
    // Mixed rates: bytes (8 per frame) times 8 over the seconds.
    EXPECT_EQ(target.bit_rate(), static_cast<int>(std::lround(frames * 8 * 8 / seconds)));
}

// Once with an exact array (reallocation) and once with room to spare
// (in-place move): the inserted packets are the clip's packets as they were
// before the insert.
TEST(ClipInsert, IntoItself)
{
    for (bool exact : {true, false}) {
        FakeClip grown(44100.0f, 1024, nullptr);
        fill(grown, {3, 4, 5});
        int err = 0;
        Owned copy(exact ? grown.copy(0, 2, &err) : nullptr);
        FakeClip* clip = exact ? static_cast<FakeClip*>(copy.get()) : &grown;
        const std::vector<Packet*> b = packets_of(*clip);
        clip->insert(1, clip, &err);
        EXPECT_EQ(err, 0);
        EXPECT_EQ(packets_of(*clip), (std::vector<Packet*>{b[0], b[0], b[1], b[2], b[1], b[2]}));
        expect_counts(b, exact ? 3 : 2);
        EXPECT_FLOAT_EQ(clip->duration(), static_cast<float>(24.0 / 44100.0));
        const FakeClip::Lanes d = clip->decode_all();
        ASSERT_EQ(d.left.size(), 24u);
        EXPECT_EQ(d.left[3], 0.0f);
        EXPECT_EQ(d.left[6], 100.0f);
        EXPECT_EQ(d.left[23], 204.0f);
    }
}

TEST(ClipEdit, ReferencesBalanceOverAnEditSession)
{
    FakeClip clip(44100.0f, 1024, nullptr);
    fill(clip, {10, 20, 30, 40, 50, 60});
    const std::vector<Packet*> all = packets_of(clip);
    for (Packet* p : all)
        p->retain(); // the test's own reference, to watch the counts
    int err = 0;
    {
        Owned a(clip.cut(1, 2, &err)), b(clip.copy(0, 3, &err));
        clip.insert(100, a.get(), &err);
        a->insert(0, b.get(), &err);
        Owned c(a->cut(0, 5, &err));
        EXPECT_EQ(a->packet_count, 0);
        EXPECT_EQ(c->packet_count, 6);
    }
    // Only clip holds the packets now: [0, 3, 4, 5, 1, 2].
    EXPECT_EQ(packets_of(clip), (std::vector<Packet*>{all[0], all[3], all[4], all[5], all[1], all[2]}));
    expect_counts(all, 2);
    clip.close(nullptr);
    expect_counts(all, 1);
    for (Packet* p : all)
        p->release();
}

} // namespace
