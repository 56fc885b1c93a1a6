/*
 * The public interface as a C program uses it: kel.h alone, linked against
 * the shared library alone. The program writes its own WAVE file, whose
 * every packet carries its index in its first sample, so that edits can be
 * followed packet by packet, then opens, edits, gains, draws, saves and
 * closes it.
 */
#define _POSIX_C_SOURCE 200809L

#include "kel.h"

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define PACKETS 40
#define FRAMES 1024 /* the PCM packet length when the raw packet size is 0 */
#define RATE 44100
#define PERIOD 64 /* frames per sine period: the extremes fall on whole frames */
#define PI 3.14159265358979323846

static int failures;

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);               \
            ++failures;                                                                            \
        }                                                                                          \
    } while (0)

#define CHECK_NEAR(a, b, tol) CHECK(fabs((double)(a) - (double)(b)) <= (tol))

/* Amplitude of packet p: the first half at half scale, the rest at a quarter. */
static double amplitude(int p)
{
    return p < PACKETS / 2 ? 0.5 : 0.25;
}

/* Sample k of packet p as written to the file: the marker p * 100 at k = 0,
 * a sine of PERIOD frames elsewhere. */
static int16_t sample(int p, int k)
{
    if (k == 0)
        return (int16_t)(p * 100);
    return (int16_t)lround(amplitude(p) * 32767.0 * sin(2.0 * PI * k / PERIOD));
}

static void put_le(unsigned char* at, uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        at[i] = (unsigned char)(value >> (8 * i));
}

/* A 16-bit stereo RIFF WAVE file with identical channels. */
static int write_wave(const char* path)
{
    const uint32_t data_bytes = PACKETS * FRAMES * 4;
    unsigned char header[44];
    memcpy(header, "RIFF", 4);
    put_le(header + 4, 36 + data_bytes, 4);
    memcpy(header + 8, "WAVEfmt ", 8);
    put_le(header + 16, 16, 4);
    put_le(header + 20, 1, 2);            /* integer PCM */
    put_le(header + 22, 2, 2);            /* channels */
    put_le(header + 24, RATE, 4);
    put_le(header + 28, RATE * 4, 4);     /* bytes per second */
    put_le(header + 32, 4, 2);            /* bytes per frame */
    put_le(header + 34, 16, 2);           /* bits */
    memcpy(header + 36, "data", 4);
    put_le(header + 40, data_bytes, 4);
    FILE* f = fopen(path, "wb");
    if (f == NULL)
        return 0;
    fwrite(header, 1, sizeof header, f);
    for (int p = 0; p < PACKETS; ++p)
        for (int k = 0; k < FRAMES; ++k) {
            unsigned char frame[4];
            const uint16_t v = (uint16_t)sample(p, k);
            put_le(frame, v, 2);
            put_le(frame + 2, v, 2);
            fwrite(frame, 1, 4, f);
        }
    return fclose(f) == 0;
}

/* The source packet a decoded packet came from, read from its marker. */
static int origin(kel_clip_t* clip, int packet, float gain)
{
    static float left[FRAMES], right[FRAMES];
    float* channels[2] = {left, right};
    int err = 0;
    const int frames = kel_clip_packet_decode(clip, packet, channels, &err);
    if (err != 0 || frames != FRAMES)
        return -1;
    return (int)lround(left[0] * 32768.0 / 100.0 / gain);
}

static int cancel_at_once(void* context, float percent)
{
    (void)percent;
    ++*(int*)context;
    return 0;
}

static void check_open_and_info(const char* path)
{
    int err = 0;
    int calls = 0;
    const _kel_progress_t cancel = {cancel_at_once, &calls};
    /* A cancelled load fails at once; which code survives the format
     * detection after it is not fixed here. */
    CHECK(kel_clip_open(path, &err, &cancel) == NULL);
    CHECK(err != 0 && calls == 1);

    CHECK(kel_clip_open("/nonexistent/dir/x.wav", &err, NULL) == NULL);
    CHECK(err == KEL_ERR_OPEN_READ);
    kel_error_t* e = kel_error_create(err, "x.wav");
    CHECK(e != NULL && kel_error_code(e) == err && strlen(kel_error_recovery_suggestion(e)) > 0);
    CHECK(strcmp(kel_error_domain(e), KEL_ERROR_DOMAIN) == 0);
    kel_error_free(e);

    _kel_clip_info_t info;
    CHECK(kel_file_info(path, &info, NULL) == 0);
    CHECK(info.format == KEL_FORMAT_WAVE && info.channels == 2 && info.bits_per_sample == 16);
    CHECK(info.sample_rate == RATE && info.rate_mode == 0);
    CHECK_NEAR(info.duration, (double)PACKETS * FRAMES / RATE, 1e-4);
    CHECK(abs(info.bit_rate - RATE * 32) <= 1); /* computed through the float duration */
}

static void check_edits_gain_overview(kel_clip_t* clip, const char* saved)
{
    int err = 0;
    /* Copy packets 10..19, cut 0..4 away, insert the cut piece after the copy. */
    kel_clip_t* copy = kel_clip_copy(clip, 10, 19, &err);
    kel_clip_t* cut = kel_clip_cut(clip, 0, 4, &err);
    CHECK(copy != NULL && cut != NULL && err == 0);
    if (copy == NULL || cut == NULL)
        return;
    CHECK(kel_clip_packet_count(clip) == PACKETS - 5 && kel_clip_packet_count(cut) == 5);
    CHECK(origin(clip, 0, 1.0f) == 5 && origin(cut, 4, 1.0f) == 4);
    CHECK(kel_clip_will_accept(copy, cut, &err) && err == 0);
    kel_clip_insert(copy, 1000, cut, &err);
    CHECK(err == 0 && kel_clip_packet_count(copy) == 15);
    CHECK(origin(copy, 9, 1.0f) == 19 && origin(copy, 10, 1.0f) == 0 && origin(copy, 14, 1.0f) == 4);
    CHECK(kel_clip_copy(copy, 3, 2, &err) == NULL && err == KEL_ERR_PACKET_NUMBER);

    /* Gain on one packet of the copy: the shared source keeps its own. */
    CHECK(kel_clip_packet_set_gain(copy, 0, 0.5f, &err) && err == 0);
    CHECK(kel_clip_packet_get_gain(copy, 0, &err) == 0.5f);
    CHECK(kel_clip_packet_quantize_gain(copy, 0, &err) == 0.5f); /* PCM has no gain steps */
    CHECK(origin(copy, 0, 0.5f) == 10 && origin(clip, 5, 1.0f) == 10);

    /* One point per packet: extremes are the sine's, halved on packet 0. */
    kel_overview_t* ov = kel_clip_overview_create(copy, NULL);
    float pairs[2 * 15];
    float rms[15];
    CHECK(kel_overview_generate(ov, 0, 14, 15, 0, pairs, &err) == 15 && err == 0);
    CHECK(kel_rms_generate(ov, 0, 14, rms, &err) == 15 && err == 0);
    for (int i = 0; i < 15; ++i) {
        const int source = i < 10 ? 10 + i : i - 10;
        const double level = amplitude(source) * (i == 0 ? 0.5 : 1.0);
        CHECK_NEAR(pairs[2 * i], level, 1e-3);
        CHECK_NEAR(pairs[2 * i + 1], -level, 1e-3);
        CHECK_NEAR(rms[i], level / sqrt(2.0), 2e-3);
    }
    CHECK_NEAR(kel_max_sample_find(ov, 1, 14, &err), 0.5, 1e-3);
    CHECK(kel_overview_generate(ov, 0, 15, 4, 0, pairs, &err) == 0 && err == KEL_ERR_PACKET_NUMBER);
    kel_clip_overview_destroy(ov);

    /* Saved with the gain applied; the reopened file has the same packets. */
    kel_clip_save_to(copy, saved, NULL, 0, NULL, 0, &err, NULL);
    CHECK(err == 0);
    kel_clip_t* back = kel_clip_open(saved, &err, NULL);
    CHECK(back != NULL && err == 0);
    if (back != NULL) {
        CHECK(kel_clip_packet_count(back) == 15);
        CHECK(origin(back, 0, 0.5f) == 10 && origin(back, 14, 1.0f) == 4);
        CHECK_NEAR(kel_clip_packet_get_gain(back, 0, &err), 1.0, 0.0);
        kel_clip_close(back, NULL);
    }
    kel_clip_close(cut, NULL);
    kel_clip_close(copy, NULL);
}

int main(void)
{
    char dir[] = "/tmp/kel-capi-XXXXXX";
    if (mkdtemp(dir) == NULL) {
        perror("mkdtemp");
        return 1;
    }
    char source[64], saved[64];
    snprintf(source, sizeof source, "%s/source.wav", dir);
    snprintf(saved, sizeof saved, "%s/saved.wav", dir);
    if (!write_wave(source)) {
        perror(source);
        return 1;
    }

    check_open_and_info(source);
    int err = 0;
    kel_clip_t* clip = kel_clip_open(source, &err, NULL);
    CHECK(clip != NULL && err == 0);
    if (clip != NULL) {
        CHECK(kel_clip_packet_count(clip) == PACKETS);
        CHECK(kel_clip_packet_frame_count(clip, PACKETS - 1, &err) == FRAMES);
        CHECK(origin(clip, 17, 1.0f) == 17);
        check_edits_gain_overview(clip, saved);
        kel_clip_close(clip, NULL);
    }
    CHECK(kel_clip_create(0, 2, 44100.0f, 16, 0, 0, &err) == NULL && err == KEL_ERR_CLIP_TYPE);

    unlink(saved);
    unlink(source);
    rmdir(dir);
    if (failures != 0) {
        fprintf(stderr, "%d checks failed\n", failures);
        return 1;
    }
    printf("all checks passed\n");
    return 0;
}
