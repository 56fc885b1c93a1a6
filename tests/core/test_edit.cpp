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

constexpr float kRate = 44100.0f;

// Appends packets of the given frame counts; packet p's left samples are
// 100p + i (i the frame index) and its right samples their negatives, so
// that every frame of every packet can be recognised after an edit.
void fill(FakeClip& clip, const std::vector<int>& frames, int base = 0)
{
    for (size_t p = 0; p < frames.size(); ++p) {
        std::vector<float> left(static_cast<size_t>(frames[p]));
        std::vector<float> right(left.size());
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

// A clip whose array has exactly `count` slots (a copy gets an exact array).
Clip* exact_clip(int count)
{
    FakeClip source(kRate, 1024, nullptr);
    fill(source, std::vector<int>(static_cast<size_t>(count), 10));
    int err = 0;
    Clip* clip = source.copy(0, count - 1, &err);
    source.close(nullptr);
    return clip;
}

void close_and_delete(Clip* clip)
{
    clip->close(nullptr);
    delete clip;
}

void expect_sole_owner(const std::vector<Packet*>& packets)
{
    for (Packet* p : packets)
        EXPECT_EQ(p->retain_count(), 1);
}

} // namespace

TEST(ClipCopy, WholeClipSharesPacketsAndStatistics)
{
    FakeClip source(kRate, 1024, nullptr);
    fill(source, {1152, 1152, 576, 1152});
    source.packets[2]->bit_rate = 160000;
    for (int i : {0, 1, 3})
        source.packets[i]->bit_rate = 128000;
    source.update_stream_info();
    std::vector<float> left_before, right_before;
    source.decode_all(left_before, right_before);

    int err = 0x12345678;
    Clip* whole = source.copy(0, 3, &err);
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(err, 0x12345678) << "no code is set on success";
    EXPECT_NE(dynamic_cast<FakeClip*>(whole), nullptr);
    EXPECT_EQ(whole->backing_file, nullptr);
    EXPECT_EQ(whole->packet_count, 4);
    EXPECT_EQ(whole->packet_capacity, 4);
    EXPECT_EQ(packets_of(*whole), packets_of(source));
    for (Packet* p : packets_of(source))
        EXPECT_EQ(p->retain_count(), 2);
    EXPECT_EQ(whole->is_vbr(), 1);
    EXPECT_EQ(whole->is_vbr(), source.is_vbr());
    EXPECT_EQ(whole->duration(), source.duration());
    EXPECT_EQ(whole->bit_rate(), source.bit_rate());

    close_and_delete(whole);
    expect_sole_owner(packets_of(source));
    std::vector<float> left_after, right_after;
    source.decode_all(left_after, right_after);
    EXPECT_EQ(left_after, left_before);
    EXPECT_EQ(right_after, right_before);
    source.close(nullptr);
}

TEST(ClipCopy, SubrangeStatisticsAreItsOwn)
{
    FakeClip source(kRate, 1024, nullptr);
    fill(source, {1000, 441, 882, 300});
    int err = 0;
    Clip* part = source.copy(1, 2, &err);
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(part->packets[0], source.packets[1]);
    EXPECT_EQ(part->packets[1], source.packets[2]);
    // Fake packets carry bit rate 0 and 8 bytes per frame.
    EXPECT_EQ(part->is_vbr(), 0);
    EXPECT_FLOAT_EQ(part->duration(), static_cast<float>(1323.0 / 44100.0));
    EXPECT_EQ(part->bit_rate(), static_cast<int>(std::lround(1323.0 * 8 * 8 / (1323.0 / 44100.0))));
    close_and_delete(part);
    source.close(nullptr);
}

TEST(ClipCopy, BadRangesAreRefusedAndChangeNothing)
{
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {10, 10, 10, 10, 10});
    const std::vector<Packet*> before = packets_of(clip);
    const struct {
        int first, last;
    } ranges[] = {{3, 2}, {-1, 0}, {0, 5}, {5, 5}, {-3, -1}};
    for (const auto& r : ranges) {
        int err = 0;
        EXPECT_EQ(clip.copy(r.first, r.last, &err), nullptr);
        EXPECT_EQ(err, fourcc("EPnm")) << r.first << ".." << r.last;
        err = 0;
        EXPECT_EQ(clip.cut(r.first, r.last, &err), nullptr);
        EXPECT_EQ(err, fourcc("EPnm")) << r.first << ".." << r.last;
    }
    EXPECT_EQ(packets_of(clip), before);
    expect_sole_owner(before);
    clip.close(nullptr);
}

TEST(ClipCut, WholeClipEmptiesTheSource)
{
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {100, 200, 300});
    const std::vector<Packet*> before = packets_of(clip);
    int err = 0;
    Clip* all = clip.cut(0, 2, &err);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(packets_of(*all), before);
    expect_sole_owner(before);
    EXPECT_EQ(clip.packet_count, 0);
    EXPECT_EQ(clip.packet_capacity, 0);
    EXPECT_EQ(clip.duration(), 0.0f);
    EXPECT_EQ(clip.bit_rate(), 0);

    // The emptied clip is still usable: put everything back.
    clip.insert(0, all, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(packets_of(clip), before);
    EXPECT_EQ(clip.packet_capacity, 3);
    close_and_delete(all);
    expect_sole_owner(before);
    clip.close(nullptr);
}

TEST(ClipCut, ShrinkPolicy)
{
    // 100 / 99 is below 1.05: the array stays and is compacted in place.
    Clip* keep = exact_clip(100);
    std::vector<Packet*> before = packets_of(*keep);
    Packet** array = keep->packets;
    int err = 0;
    Clip* one = keep->cut(40, 40, &err);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(keep->packets, array);
    EXPECT_EQ(keep->packet_capacity, 100);
    EXPECT_EQ(keep->packet_count, 99);
    EXPECT_EQ(keep->packets[99], nullptr);
    before.erase(before.begin() + 40);
    EXPECT_EQ(packets_of(*keep), before);
    EXPECT_EQ(one->packets[0]->retain_count(), 1);
    close_and_delete(one);
    close_and_delete(keep);

    // 100 / 95 is above 1.05: the array is reallocated to exactly 95.
    Clip* trim = exact_clip(100);
    before = packets_of(*trim);
    array = trim->packets;
    Clip* five = trim->cut(0, 4, &err);
    ASSERT_NE(five, nullptr);
    EXPECT_NE(trim->packets, array);
    EXPECT_EQ(trim->packet_capacity, 95);
    before.erase(before.begin(), before.begin() + 5);
    EXPECT_EQ(packets_of(*trim), before);
    close_and_delete(five);
    close_and_delete(trim);

    // Exactly 1.05 (105 / 100) is "at least": trimmed.
    Clip* edge = exact_clip(105);
    Clip* cut = edge->cut(100, 104, &err);
    EXPECT_EQ(edge->packet_capacity, 100);
    close_and_delete(cut);
    close_and_delete(edge);

    // An array grown in steps of 8192 is trimmed by the first cut.
    FakeClip grown(kRate, 1024, nullptr);
    fill(grown, {5, 6, 7});
    before = packets_of(grown);
    cut = grown.cut(1, 1, &err);
    EXPECT_EQ(grown.packet_capacity, 2);
    EXPECT_EQ(packets_of(grown), (std::vector<Packet*>{before[0], before[2]}));
    EXPECT_FLOAT_EQ(grown.duration(), static_cast<float>(12.0 / 44100.0));
    close_and_delete(cut);
    grown.close(nullptr);
}

TEST(ClipInsert, PositionsAreClamped)
{
    struct Case {
        int at;
        int expected_at;
    };
    for (const Case c : {Case{-7, 0}, Case{0, 0}, Case{2, 2}, Case{3, 3}, Case{1000000, 3}}) {
        FakeClip target(kRate, 1024, nullptr);
        fill(target, {10, 10, 10});
        FakeClip other(kRate, 1024, nullptr);
        fill(other, {20, 30}, 10);
        std::vector<Packet*> expected = packets_of(target);
        const std::vector<Packet*> incoming = packets_of(other);
        expected.insert(expected.begin() + c.expected_at, incoming.begin(), incoming.end());

        int err = 0;
        target.insert(c.at, &other, &err);
        EXPECT_EQ(err, 0);
        EXPECT_EQ(packets_of(target), expected) << "at " << c.at;
        EXPECT_EQ(packets_of(other), incoming) << "the source is left as it was";
        for (Packet* p : incoming)
            EXPECT_EQ(p->retain_count(), 2);
        other.close(nullptr);
        expect_sole_owner(packets_of(target));
        target.close(nullptr);
    }
}

TEST(ClipInsert, ArrayGrowsToExactTotalOrMovesInPlace)
{
    FakeClip other(kRate, 1024, nullptr);
    fill(other, {4, 4, 4}, 50);

    // Short of room: a new array of exactly the total, not a step of 8192.
    Clip* tight = exact_clip(10);
    Packet** old_array = tight->packets;
    int err = 0;
    tight->insert(5, &other, &err);
    EXPECT_NE(tight->packets, old_array);
    EXPECT_EQ(tight->packet_capacity, 13);
    EXPECT_EQ(tight->packet_count, 13);
    EXPECT_EQ(tight->packets[5], other.packets[0]);
    EXPECT_EQ(tight->packets[7], other.packets[2]);
    close_and_delete(tight);

    // Room enough: moved up in place.
    FakeClip roomy(kRate, 1024, nullptr);
    fill(roomy, {10, 10});
    Packet* second = roomy.packets[1];
    old_array = roomy.packets;
    roomy.insert(1, &other, &err);
    EXPECT_EQ(roomy.packets, old_array);
    EXPECT_EQ(roomy.packet_capacity, Clip::kPacketArrayStep);
    EXPECT_EQ(roomy.packet_count, 5);
    EXPECT_EQ(roomy.packets[4], second);
    roomy.close(nullptr);

    // Into a clip that has no array at all.
    FakeClip empty(kRate, 1024, nullptr);
    empty.insert(3, &other, &err);
    EXPECT_EQ(packets_of(empty), packets_of(other));
    EXPECT_EQ(empty.packet_capacity, 3);
    EXPECT_FLOAT_EQ(empty.duration(), static_cast<float>(12.0 / 44100.0));
    empty.close(nullptr);

    // An empty clip inserted changes nothing.
    FakeClip nothing(kRate, 1024, nullptr);
    other.insert(1, &nothing, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(other.packet_count, 3);
    expect_sole_owner(packets_of(other));
    other.close(nullptr);
}

TEST(ClipInsert, RefusalLeavesBothClipsUnchanged)
{
    FakeClip target(kRate, 1024, nullptr);
    fill(target, {10, 10});
    FakeClip other(kRate, 1024, nullptr);
    fill(other, {10});
    target.refuse_code = fourcc("Ecld");
    const std::vector<Packet*> target_before = packets_of(target);
    const float duration = target.duration();

    int err = 0;
    target.insert(1, &other, &err);
    EXPECT_EQ(err, fourcc("Ecld"));
    EXPECT_EQ(packets_of(target), target_before);
    EXPECT_EQ(target.duration(), duration);
    EXPECT_EQ(other.packet_count, 1);
    expect_sole_owner(target_before);
    expect_sole_owner(packets_of(other));
    target.close(nullptr);
    other.close(nullptr);
}

TEST(ClipInsert, StatisticsReflectTheCombinedPackets)
{
    FakeClip target(kRate, 1024, nullptr);
    fill(target, {1152, 1152, 1152});
    for (Packet* p : packets_of(target))
        p->bit_rate = 128000;
    target.update_stream_info();
    FakeClip same(kRate, 1024, nullptr);
    fill(same, {1152});
    same.packets[0]->bit_rate = 128000;
    FakeClip faster(kRate, 1024, nullptr);
    fill(faster, {576, 576});
    for (Packet* p : packets_of(faster))
        p->bit_rate = 192000;

    int err = 0;
    target.insert(1, &same, &err);
    EXPECT_EQ(target.is_vbr(), 0);
    EXPECT_EQ(target.bit_rate(), 128000);
    EXPECT_FLOAT_EQ(target.duration(), static_cast<float>(4 * 1152 / 44100.0));

    target.insert(0, &faster, &err);
    const double frames = 4 * 1152 + 2 * 576;
    const double seconds = frames / 44100.0;
    EXPECT_EQ(target.is_vbr(), 1);
    EXPECT_NEAR(target.duration(), seconds, 1e-6);
    // Mixed rates: bytes (8 per frame) times 8 over the seconds.
    EXPECT_EQ(target.bit_rate(), static_cast<int>(std::lround(frames * 8 * 8 / seconds)));
    target.close(nullptr);
    same.close(nullptr);
    faster.close(nullptr);
}

TEST(ClipInsert, IntoItself)
{
    // Once with an exact array (reallocation) and once with room to spare
    // (in-place move): the inserted packets are the clip's packets as they
    // were before the insert.
    for (bool exact : {true, false}) {
        FakeClip grown(kRate, 1024, nullptr);
        fill(grown, {3, 4, 5});
        Clip* clip = exact ? grown.copy(0, 2, nullptr) : &grown;
        if (exact)
            grown.close(nullptr);
        const std::vector<Packet*> before = packets_of(*clip);

        int err = 0;
        clip->insert(1, clip, &err);
        EXPECT_EQ(err, 0);
        const std::vector<Packet*> expected = {before[0], before[0], before[1], before[2], before[1], before[2]};
        EXPECT_EQ(packets_of(*clip), expected);
        for (Packet* p : before)
            EXPECT_EQ(p->retain_count(), 2);
        EXPECT_FLOAT_EQ(clip->duration(), static_cast<float>(24.0 / 44100.0));

        std::vector<float> left, right;
        static_cast<FakeClip*>(clip)->decode_all(left, right);
        ASSERT_EQ(left.size(), 24u);
        EXPECT_EQ(left[3], 0.0f);
        EXPECT_EQ(left[6], 100.0f);
        EXPECT_EQ(left[23], 204.0f);
        if (exact)
            close_and_delete(clip);
        else
            clip->close(nullptr);
    }
}

TEST(ClipEdit, ReferencesBalanceOverAnEditSession)
{
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {10, 20, 30, 40, 50, 60});
    const std::vector<Packet*> all = packets_of(clip);
    for (Packet* p : all)
        p->retain(); // the test's own reference, to watch the counts

    int err = 0;
    Clip* a = clip.cut(1, 2, &err);
    Clip* b = clip.copy(0, 3, &err);
    clip.insert(100, a, &err);
    a->insert(0, b, &err);
    Clip* c = a->cut(0, 5, &err);
    EXPECT_EQ(a->packet_count, 0);
    EXPECT_EQ(c->packet_count, 6);
    close_and_delete(a);
    close_and_delete(b);
    close_and_delete(c);
    // Only clip holds the packets now: [0, 3, 4, 5, 1, 2].
    EXPECT_EQ(packets_of(clip), (std::vector<Packet*>{all[0], all[3], all[4], all[5], all[1], all[2]}));
    for (Packet* p : all)
        EXPECT_EQ(p->retain_count(), 2);
    clip.close(nullptr);
    for (Packet* p : all) {
        EXPECT_EQ(p->retain_count(), 1);
        p->release();
    }
}
