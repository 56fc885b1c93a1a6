// AAC clips against ffmpeg: files written by ffmpeg's AAC-LC encoder are
// opened, decoded, gained and saved, and the results are read back with
// ffprobe and ffmpeg's decoder. Files with clicks make the encoder switch to
// eight short windows, whose section and spectral layout differ.
#include "api/formatdispatch.h"
#include "core/bshandle.h"
#include "core/bshandlefile.h"
#include "core/fourcc.h"
#include "core/packet.h"
#include "m4a/clipm4aac.h"
#include "m4a/m4afixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <unistd.h>

namespace KEL {
namespace test {
namespace {

struct Fixture {
    int rate;
    int channels;
    int kbps;
    bool clicks; // impulses every 0.3 s over a quiet tone: short windows
};

std::string name_of(const Fixture& f)
{
    return std::to_string(f.rate) + "-" + std::to_string(f.channels) + "-" + std::to_string(f.kbps) +
           (f.clicks ? "-clicks" : "-tone") + ".m4a";
}

std::string fixture(const Fixture& f)
{
    const std::string path = scratch().path(name_of(f));
    if (file_exists(path))
        return path;
    if (!f.clicks)
        return make_aac(name_of(f), f.rate, f.channels, f.kbps, 2.0, false);
    // Left and right differ so that the pair is not coded as one.
    const std::string left = "0.9*lt(mod(t\\,0.3)\\,0.0005)+0.05*sin(2*PI*440*t)";
    const std::string right = "0.7*lt(mod(t+0.1\\,0.3)\\,0.0008)+0.08*sin(2*PI*660*t)";
    const std::string exprs = f.channels == 1 ? left : left + "|" + right;
    const int rc = run_tool({"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                             "aevalsrc=exprs=" + exprs + ":s=" + std::to_string(f.rate) + ":d=2", "-c:a", "aac",
                             "-b:a", std::to_string(f.kbps) + "k", path});
    return rc == 0 ? path : std::string();
}

// ffmpeg's decode of every access unit (edit list ignored).
Samples ffmpeg_units(const std::string& path)
{
    return ffmpeg_frames(path, {"-ignore_editlist", "1"});
}

// True when every bit that differs between a and b lies in at most
// `fields` 8-bit windows, each of which reads v in a and clamp(v + steps)
// in b. For a block that starts with a single channel element the window
// must start at bit 7, right after the element id and instance tag (the
// first block of an ffmpeg file starts with a fill element instead).
::testing::AssertionResult only_gains_moved(const Bytes& a, const Bytes& b, int fields, int steps)
{
    if (a.size() != b.size())
        return ::testing::AssertionFailure() << "sizes " << a.size() << " and " << b.size();
    const size_t bits = a.size() * 8;
    auto differs = [&](size_t bit) { return (((a[bit / 8] ^ b[bit / 8]) >> (7 - bit % 8)) & 1) != 0; };
    std::vector<size_t> windows;
    for (size_t d = 0; d < bits; ++d) {
        if (!differs(d) || (!windows.empty() && d < windows.back() + 8))
            continue;
        // Of the windows holding bit d whose values match, the one that
        // explains the most changed bits.
        size_t best = bits;
        int best_covered = 0;
        for (size_t p = d >= 7 ? d - 7 : 0; p <= d && p + 8 <= bits; ++p) {
            const int before = read8(a, p);
            if ((!windows.empty() && p < windows.back() + 8) || before == 0 ||
                std::clamp(before + steps, 0, 255) != read8(b, p))
                continue;
            int covered = 0;
            for (size_t q = p; q < p + 8; ++q)
                covered += differs(q) ? 1 : 0;
            if (covered > best_covered) {
                best = p;
                best_covered = covered;
            }
        }
        if (best == bits)
            return ::testing::AssertionFailure() << "bit " << d << " changed outside a gain field";
        windows.push_back(best);
    }
    if (windows.empty() && steps != 0)
        return ::testing::AssertionFailure() << "no field moved";
    if (static_cast<int>(windows.size()) > fields)
        return ::testing::AssertionFailure() << windows.size() << " fields changed";
    if (fields == 1 && (a[0] >> 5) == 0 && !windows.empty() && windows[0] != 7)
        return ::testing::AssertionFailure() << "mono field at bit " << windows[0];
    return ::testing::AssertionSuccess();
}

const std::vector<Fixture> kFixtures = {
    {44100, 1, 64, false},  {44100, 2, 128, false}, {48000, 2, 256, false}, {48000, 1, 128, false},
    {22050, 1, 64, false},  {22050, 2, 128, false}, {44100, 1, 128, true},  {44100, 2, 128, true},
    {48000, 2, 256, true},  {22050, 2, 64, true},
};

TEST(ClipM4AAC, PacketsAndDecodeMatchFFmpeg)
{
    for (const Fixture& f : kFixtures) {
        SCOPED_TRACE(name_of(f));
        const std::string path = fixture(f);
        ASSERT_FALSE(path.empty());
        EXPECT_EQ(ClipM4AAC::detect(path.c_str()), 0);
        int err = 0;
        ClipPtr clip = open_clip(path, err);
        ASSERT_NE(clip, nullptr) << err;
        ASSERT_NE(dynamic_cast<ClipM4AAC*>(clip.get()), nullptr);

        const std::vector<ProbePacket> probed = probe_packets(path);
        ASSERT_EQ(clip->packet_count, static_cast<int>(probed.size()));
        long long bytes = 0;
        long long frames = 0;
        for (int i = 0; i < clip->packet_count; ++i) {
            EXPECT_EQ(clip->packets[i]->handle->size, probed[static_cast<size_t>(i)].size) << i;
            EXPECT_EQ(clip->packets[i]->frame_count, probed[static_cast<size_t>(i)].duration);
            frames += probed[static_cast<size_t>(i)].duration;
            bytes += probed[static_cast<size_t>(i)].size;
        }

        _kel_clip_info_t info{};
        clip->get_info(&info);
        _kel_clip_info_t file{};
        EXPECT_EQ(FormatDispatch::standard().file_info(path.c_str(), &file, nullptr), 0);
        const float seconds = static_cast<float>(frames) / static_cast<float>(f.rate);
        for (const _kel_clip_info_t& i : {info, file}) {
            EXPECT_EQ(i.format, KEL_FORMAT_AAC);
            EXPECT_EQ(i.channels, f.channels);
            EXPECT_EQ(i.sample_rate, static_cast<float>(f.rate));
            EXPECT_EQ(i.bits_per_sample, 16);
            EXPECT_NEAR(i.duration, seconds, 1e-4);
            EXPECT_EQ(i.rate_mode, 2);
            EXPECT_NEAR(i.bit_rate, static_cast<double>(bytes) * 8.0 / seconds, 2.0);
        }

        // Every unit as ffmpeg decodes it; of a last unit that the file
        // says holds fewer frames, the frames it holds.
        const Samples ours = decode_clip(*clip);
        Samples theirs = ffmpeg_units(path);
        ASSERT_EQ(theirs.left.size(), static_cast<size_t>(clip->packet_count) * 1024);
        const size_t cut = static_cast<size_t>(1024 - clip->packets[clip->packet_count - 1]->frame_count);
        theirs.left.resize(theirs.left.size() - cut);
        theirs.right.resize(theirs.right.size() - cut);
        ASSERT_EQ(ours.left.size(), theirs.left.size());
        EXPECT_TRUE(same_bits(ours.left, theirs.left));
        EXPECT_TRUE(same_bits(ours.right, theirs.right));
    }
}

TEST(ClipM4AAC, LosslessGainMovesOnlyGlobalGains)
{
    struct Step {
        float gain;
        int steps; // derived: truncate(4 log2(g) + 0.001)
    };
    const std::vector<Step> steps = {{std::pow(2.0f, 3.0f / 4.0f), 3},
                                     {std::pow(2.0f, -2.5f / 4.0f), -2},
                                     {0.5f, -3}};
    const std::vector<Fixture> cases = {kFixtures[0], kFixtures[1], kFixtures[5], kFixtures[6], kFixtures[7],
                                        kFixtures[8]};
    for (const Fixture& f : cases) {
        const std::string path = fixture(f);
        ASSERT_FALSE(path.empty());
        const std::vector<Bytes> original = packet_bytes(path);
        const Samples reference = ffmpeg_units(path);

        // Short windows are present in the click files: window_sequence 2
        // follows the reserved bit of ics_info, which comes after id, tag
        // and global_gain (single channel), after id, tag and common_window
        // (pair with a common window) or after those and the first
        // global_gain (pair without).
        if (f.clicks) {
            int short_blocks = 0;
            for (const Bytes& u : original) {
                const int id = u[0] >> 5;
                const size_t at = id == 0 ? 16 : (u[0] & 1) != 0 ? 9 : 17;
                if (id <= 1 && ((read8(u, at) >> 6) & 3) == 2)
                    ++short_blocks;
            }
            EXPECT_GT(short_blocks, 0) << name_of(f);
        }

        for (const Step& s : steps) {
            SCOPED_TRACE(name_of(f) + " steps " + std::to_string(s.steps));
            ASSERT_EQ(static_cast<int>(std::trunc(4.0 * std::log2(static_cast<double>(s.gain)) + 0.001)), s.steps);
            int err = 0;
            ClipPtr clip = open_clip(path, err);
            ASSERT_NE(clip, nullptr);
            for (int i = 0; i < clip->packet_count; ++i)
                clip->packet_gain(i, s.gain, &err);
            const std::string saved = scratch().path("gained.m4a");
            ASSERT_EQ(clip->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);

            const std::vector<Bytes> moved = packet_bytes(saved);
            ASSERT_EQ(moved.size(), original.size());
            for (size_t i = 0; i < moved.size(); ++i)
                ASSERT_TRUE(only_gains_moved(original[i], moved[i], f.channels, s.steps)) << "packet " << i;

            const Samples scaled = ffmpeg_units(saved);
            ASSERT_EQ(scaled.left.size(), reference.left.size());
            const double factor = std::pow(2.0, s.steps / 4.0);
            double worst = 0.0;
            for (size_t i = 0; i < scaled.left.size(); ++i) {
                for (const auto* pair : {&reference.left, &reference.right}) {
                    const double want = (*pair)[i] * factor;
                    const double got = (pair == &reference.left ? scaled.left : scaled.right)[i];
                    const double e = std::fabs(got - want) / (std::fabs(want) + 1e-3);
                    worst = std::max(worst, e);
                }
            }
            EXPECT_LT(worst, 1e-4);
        }

        // Gain 1.0 saves every access unit byte for byte.
        int err = 0;
        ClipPtr clip = open_clip(path, err);
        ASSERT_NE(clip, nullptr);
        const std::string same = scratch().path("same.m4a");
        ASSERT_EQ(clip->save_to(same.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);
        EXPECT_EQ(packet_bytes(same), original);
    }
}

TEST(ClipM4AAC, TranscodeFromWave)
{
    const std::string wav = scratch().path("source.wav");
    ASSERT_EQ(run_tool({"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                        "sine=frequency=500:sample_rate=44100:duration=1.5", "-ac", "2", "-c:a", "pcm_s16le", wav}),
              0);
    int err = 0;
    ClipPtr source = open_clip(wav, err);
    ASSERT_NE(source, nullptr);
    const long long frames = 66150;
    for (int channels : {1, 2}) {
        SCOPED_TRACE(channels);
        err = 0;
        kel_clip_t* made = kel_clip_create(KEL_FORMAT_AAC, channels, 44100.0f, 16, 128000, 0, &err);
        ASSERT_NE(made, nullptr);
        ClipPtr target(made);
        ClipPtr result(target->transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
        ASSERT_NE(result, nullptr) << err;
        const std::string out = scratch().path("transcoded.m4a");
        ASSERT_EQ(result->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);

        Probe probe;
        ASSERT_TRUE(ffprobe(out, probe));
        EXPECT_EQ(probe.codec, "aac");
        EXPECT_EQ(probe.channels, channels);
        EXPECT_EQ(probe.sample_rate, 44100);
        EXPECT_TRUE(ffmpeg_decodes_cleanly(out));
        // Every input frame is in the stream, behind the encoder's 1024
        // frames of priming, and less than one more packet of padding.
        const std::vector<ProbePacket> packets = probe_packets(out);
        EXPECT_GE(static_cast<long long>(packets.size()) * 1024, frames + 1024);
        EXPECT_LT(static_cast<long long>(packets.size()) * 1024, frames + 1024 + 1024 + 1024);
    }
}

TEST(ClipM4AAC, ParametersAndCompatibility)
{
    int err = 0;
    EXPECT_EQ(kel_clip_create(KEL_FORMAT_AAC, 3, 44100.0f, 16, 128000, 0, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    err = 0;
    EXPECT_EQ(kel_clip_create(KEL_FORMAT_AAC, 2, -1.0f, 16, 128000, 0, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));

    const std::string path = fixture(kFixtures[1]);
    ClipPtr clip = open_clip(path, err);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(clip->packet_preroll_count(3, &err), 0);
    EXPECT_EQ(err, 0);
    clip->packet_preroll_count(clip->packet_count, &err);
    EXPECT_EQ(err, fourcc("EPnm"));

    // A copy goes back into its source; other rates and formats do not.
    ClipPtr piece(clip->copy(2, 5, &err));
    ASSERT_NE(piece, nullptr);
    const int before = clip->packet_count;
    clip->insert(0, piece.get(), &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(clip->packet_count, before + 4);
    ClipPtr other(ClipM4AAC::create_empty(2, 44100.0f, 96000, &err));
    EXPECT_FALSE(clip->will_accept(other.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));
    ClipPtr mono(ClipM4AAC::create_empty(1, 44100.0f, static_cast<ClipM4AAC*>(clip.get())->nominal_bit_rate, &err));
    EXPECT_FALSE(clip->will_accept(mono.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));
    ClipPtr wave(open_clip(scratch().path("source.wav"), err));
    if (wave != nullptr) {
        EXPECT_FALSE(clip->will_accept(wave.get(), &err));
        EXPECT_EQ(err, fourcc("Eclt"));
    }
    EXPECT_EQ(clip->save_to(scratch().path("no/such/dir.m4a").c_str(), nullptr, 0, nullptr, 0, &err, nullptr),
              fourcc("Efow"));
}

// The saver reads runs of adjacent packets at once and writes blocks of a
// megabyte. An edited clip of more than one block (a copied range inserted
// out of file order, mixed gains) saves every packet exactly as its own
// get_bytes gives it; once the backing file is cut short, the packets it no
// longer holds whole become zeros and the save reports "Egga".
TEST(ClipM4AAC, SavedPacketsAreTheirOwnBytes)
{
    const std::string path = make_aac("long.m4a", 44100, 2, 256, 40.0, false);
    ASSERT_FALSE(path.empty());
    const Bytes original = read_file(path);
    ASSERT_GT(original.size(), size_t{1} << 20);
    const std::string source = scratch().path("shrinking.m4a");
    write_file(source, original);
    int err = 0;
    ClipPtr clip = open_clip(source, err);
    ASSERT_NE(clip, nullptr);
    ClipPtr piece(clip->copy(100, 149, &err));
    ASSERT_NE(piece, nullptr);
    clip->insert(20, piece.get(), &err);
    ASSERT_EQ(err, 0);
    const float gains[] = {1.0f, 0.5f, 2.0f, 1.0f, 0.3f};
    for (int i = 0; i < clip->packet_count; ++i)
        clip->packet_gain(i, gains[(i / 7) % 5], &err);

    const long long cut_size = static_cast<long long>(original.size()) - 150000;
    for (const bool cut : {false, true}) {
        SCOPED_TRACE(cut ? "cut short" : "whole");
        if (cut) {
            ASSERT_EQ(::truncate(source.c_str(), static_cast<off_t>(cut_size)), 0);
        }
        const std::string saved = scratch().path("own-bytes.m4a");
        EXPECT_EQ(clip->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), cut ? fourcc("Egga") : 0);
        const std::vector<Bytes> written = packet_bytes(saved);
        ASSERT_EQ(written.size(), static_cast<size_t>(clip->packet_count));
        int silent = 0;
        for (int i = 0; i < clip->packet_count; ++i) {
            Packet* packet = clip->packets[i];
            const auto* handle = dynamic_cast<const BSHandleFile*>(packet->handle);
            ASSERT_NE(handle, nullptr);
            Bytes expected(static_cast<size_t>(handle->size), 0);
            if (cut && handle->offset + handle->size > cut_size)
                ++silent;
            else
                ASSERT_EQ(packet->get_bytes(expected.data(), -1.0f), handle->size);
            ASSERT_EQ(written[static_cast<size_t>(i)], expected) << "packet " << i;
        }
        EXPECT_EQ(silent > 0, cut);
    }
}

// Damaged access units give a decode error at worst (damaged tables are
// test_m4afiles' business); the gain walk over garbage stays inside the block.
TEST(ClipM4AAC, DamagedFilesNeverCrash)
{
    const std::string good = make_aac("fast.m4a", 44100, 2, 128, 1.0, true);
    ASSERT_FALSE(good.empty());
    const Bytes file = read_file(good);
    const std::string bad = scratch().path("bad.m4a");
    const std::vector<ProbePacket> packets = probe_packets(good);
    std::mt19937 rng(1234);
    for (int round = 0; round < 6; ++round) {
        Bytes damaged = file;
        for (const ProbePacket& p : packets)
            for (int k = 0; k < 3; ++k)
                damaged[static_cast<size_t>(p.pos + static_cast<long long>(rng() % static_cast<unsigned>(p.size)))] ^=
                    static_cast<unsigned char>(1u << (rng() % 8));
        write_file(bad, damaged);
        int err = 0;
        ClipPtr clip = open_clip(bad, err);
        ASSERT_NE(clip, nullptr);
        std::vector<float> l(1024), r(1024);
        float* out[2] = {l.data(), r.data()};
        for (int i = 0; i < clip->packet_count; ++i) {
            clip->packet_gain(i, 1.7f, &err);
            err = 0;
            clip->packet_decode_play(i, out, &err, -1.0f);
        }
        const std::string saved = scratch().path("damaged-saved.m4a");
        EXPECT_EQ(clip->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);
    }
}

} // namespace
} // namespace test
} // namespace KEL
