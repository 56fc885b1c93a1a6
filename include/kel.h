/*
 * kel.h - the public interface of KEL, an audio clip engine.
 *
 * A file opens as a clip: an ordered array of packets, each the smallest
 * piece of audio the file's coding lets one cut out without decoding.
 * Clips are edited, gained, drawn and saved through the flat kel_*
 * functions below. Every failure is a four-character code (KEL_ERR_*),
 * 0 meaning success; kel_error_create turns a code into readable text.
 *
 * This header compiles as C11 and as C++17.
 */
#ifndef KEL_H
#define KEL_H

#include <stdbool.h>
#include <stddef.h>

#if defined(KEL_BUILDING_LIBRARY)
#define KEL_API __attribute__((visibility("default")))
#else
#define KEL_API
#endif

#ifdef __cplusplus
namespace KEL {
class Clip;
class LoudnessMeter;
class Overview;
}
typedef KEL::Clip kel_clip_t;
typedef KEL::LoudnessMeter kel_loudness_meter_t;
typedef KEL::Overview kel_overview_t;
extern "C" {
#else
typedef struct kel_clip kel_clip_t;
typedef struct kel_loudness_meter kel_loudness_meter_t;
typedef struct kel_overview kel_overview_t;
#endif

/* ---- Records --------------------------------------------------------- */

/* The caller's progress record. A null callback means no reporting; a
 * callback that returns 0 cancels the operation (KEL_ERR_CANCELLED). */
typedef struct _kel_progress_t {
    int (*callback)(void* context, float percent);
    void* context;
} _kel_progress_t;

/* Internal form of the progress record: base_percent maps a
 * sub-operation's 0..100 onto base_percent..100. */
typedef struct _kel_progress_ext_t {
    int (*callback)(void* context, float percent);
    void* context;
    float base_percent;
} _kel_progress_ext_t;

/* Progress record of an overview; returning 0 cancels the computation. */
typedef struct _kel_overview_progress_t {
    int (*callback)(float percent, void* context, int packet);
    void* context;
    int report_always;
} _kel_overview_progress_t;

/* A clip's or a file's description. */
typedef struct _kel_clip_info_t {
    int format;          /* KEL_FORMAT_* */
    int channels;
    float sample_rate;   /* frames per second */
    int bits_per_sample; /* 16 or 24 for PCM; 16 for the coded formats */
    int bit_rate;        /* bits per second, common or average */
    float duration;      /* seconds */
    int rate_mode;       /* 0 PCM; 1 constant, 2 variable bit rate */
    int mpeg_version;    /* MP3 only: 1, 2 or 3 (MPEG-2.5); else 0 */
    int stereo_mode;     /* MP3 only: KELClipStereoMode; else 0 */
} _kel_clip_info_t;

/* Loudness as ITU-R BS.1770-4 and EBU R128 measure it. */
typedef struct kel_loudness_t {
    double integrated_lufs; /* LUFS; -infinity for digital silence */
    double range_lu;        /* loudness range, LU */
    double sample_peak;     /* largest sample magnitude, 1.0 = full scale */
    double true_peak;       /* largest magnitude of the 4x oversampled signal */
} kel_loudness_t;

/* ---- Format codes ---------------------------------------------------- */

enum {
    KEL_FORMAT_AIFF = 1,
    KEL_FORMAT_AAC = 2,  /* AAC in an MPEG-4 file */
    KEL_FORMAT_MP3 = 3,
    KEL_FORMAT_ALAC = 4, /* Apple Lossless in an MPEG-4 file */
    KEL_FORMAT_WAVE = 5,
    KEL_FORMAT_CAF = 6
};

typedef enum KELClipStereoMode {
    KELClipStereoModeSingleChannel = 0,
    KELClipStereoModeStereo = 1,
    KELClipStereoModeJointStereo = 2,
    KELClipStereoModeDualChannel = 3
} KELClipStereoMode;

/* ---- Error codes: four ASCII characters read as a big-endian integer -- */

enum {
    KEL_ERR_NONE                   = 0x00000000, /* success */
    KEL_ERR_UNKNOWN                = 0x45556E6B, /* "EUnk" unknown error or failed allocation */
    KEL_ERR_INTERNAL               = 0x45494C43, /* "EILC" internal error */
    KEL_ERR_OPEN                   = 0x45666F70, /* "Efop" file cannot be opened for reading */
    KEL_ERR_IO                     = 0x45494F20, /* "EIO " input/output error */
    KEL_ERR_OPEN_READ              = 0x45666F72, /* "Efor" file cannot be opened for reading (permissions) */
    KEL_ERR_OPEN_WRITE             = 0x45666F77, /* "Efow" file cannot be saved there */
    KEL_ERR_FORMAT_UNRECOGNIZED    = 0x45666D75, /* "Efmu" unrecognised format */
    KEL_ERR_FORMAT_UNSUPPORTED     = 0x45666D73, /* "Efms" unsupported variant of a format */
    KEL_ERR_EOF                    = 0x45656F66, /* "Eeof" unexpected end of file */
    KEL_ERR_CORRUPT_AIFF           = 0x45616966, /* "Eaif" corrupt AIFF file */
    KEL_ERR_CORRUPT_AAC            = 0x45616163, /* "Eaac" corrupt AAC file */
    KEL_ERR_CORRUPT_MP3            = 0x456D7033, /* "Emp3" corrupt MP3 file */
    KEL_ERR_CORRUPT_ALAC           = 0x45616C63, /* "Ealc" corrupt Apple Lossless file */
    KEL_ERR_CORRUPT_WAVE           = 0x45776176, /* "Ewav" corrupt WAVE file */
    KEL_ERR_CORRUPT_CAF            = 0x45636166, /* "Ecaf" corrupt CAF file */
    KEL_ERR_PACKET_NUMBER          = 0x45506E6D, /* "EPnm" packet index or range out of bounds */
    KEL_ERR_CLIP_TYPE              = 0x45636C74, /* "Eclt" wrong clip type */
    KEL_ERR_CLIP_MISMATCH          = 0x45636C64, /* "Ecld" clip formats do not match */
    KEL_ERR_NOT_IMPLEMENTED        = 0x456E6F74, /* "Enot" not implemented */
    KEL_ERR_CODEC                  = 0x45636F64, /* "Ecod" codec initialisation failed */
    KEL_ERR_EMPTY                  = 0x456D7074, /* "Empt" empty clip */
    KEL_ERR_PARAMETER              = 0x4570726D, /* "Eprm" bad parameter */
    KEL_ERR_SCALE                  = 0x4573636C, /* "Escl" bad overview scale */
    KEL_ERR_DECODE                 = 0x45646563, /* "Edec" packet decoding failed */
    KEL_ERR_UNSUPPORTED            = 0x45737570, /* "Esup" operation not supported */
    KEL_ERR_BITSTREAM_END          = 0x45626566, /* "Ebef" end of data inside a bitstream */
    KEL_ERR_BITSTREAM_PARSE        = 0x45627073, /* "Ebps" bitstream parse error */
    KEL_ERR_CANCELLED              = 0x4562726B, /* "Ebrk" cancelled through the progress callback */
    KEL_ERR_PACKET_COPY            = 0x45706370, /* "Epcp" a shared packet could not be copied */
    KEL_ERR_TRANSCODE              = 0x4574726E, /* "Etrn" packet transcoding failed */
    KEL_ERR_ENCODE                 = 0x45656E63, /* "Eenc" packet encoding failed */
    KEL_ERR_TOO_LONG               = 0x45736D70, /* "Esmp" too long for the save format */
    KEL_ERR_TOO_LARGE              = 0x45627974, /* "Ebyt" too large for the save format */
    KEL_ERR_SAVED_WITH_ERRORS      = 0x45676761, /* "Egga" saved with errors (a warning) */
    /* Raised inside the library and passed on by some calls; neither has a
     * message of its own (kel_error_create describes them as unknown). */
    KEL_ERR_PACKET_SIZE            = 0x4572737A, /* "Ersz" a packet's bytes could not be read whole */
    KEL_ERR_PREROLL                = 0x45707265, /* "Epre" an MP3 frame's bit reservoir reaches before the clip */
    KEL_ERR_IS_DIRECTORY           = 21          /* EISDIR passed through by the savers */
};

/* ---- Entry points -------------------------------------------------------
 * Every int* err may be null. Functions that return an object return null on
 * failure with the code in *err. A progress record may be null. A clip
 * obtained from any function here is closed exactly once with
 * kel_clip_close; an overview is destroyed with kel_clip_overview_destroy
 * while its clip is still open. Packet ranges are inclusive indices.
 */

/* Opens an audio file of any supported format. */
KEL_API kel_clip_t* kel_clip_open(const char* path, int* err, const _kel_progress_t* progress);
/* Describes a file without opening it as a clip; returns the error code. */
KEL_API int kel_file_info(const char* path, _kel_clip_info_t* info, const _kel_progress_t* progress);
KEL_API void kel_clip_close(kel_clip_t* clip, const _kel_progress_t* progress);
/* Writes the clip as a complete file of its format. block1 and block2 are
 * the caller's extra bytes (for instance metadata chunks), written where
 * the format keeps them. Returns the code also left in *err: 0 on success;
 * KEL_ERR_SAVED_WITH_ERRORS is a warning: the file is complete and kept.
 * A save that fails otherwise leaves no file behind. */
KEL_API int kel_clip_save_to(kel_clip_t* clip, const char* path, const void* block1, int block1_len,
                             const void* block2, int block2_len, int* err,
                             const _kel_progress_t* progress);
KEL_API void kel_clip_info(kel_clip_t* clip, _kel_clip_info_t* info);
/* A new clip sharing packets first..last. */
KEL_API kel_clip_t* kel_clip_copy(kel_clip_t* clip, int first, int last, int* err);
/* Removes packets first..last and returns them as a new clip. */
KEL_API kel_clip_t* kel_clip_cut(kel_clip_t* clip, int first, int last, int* err);
/* Inserts all packets of other before packet at (clamped to the clip). */
KEL_API void kel_clip_insert(kel_clip_t* clip, int at, kel_clip_t* other, int* err);
KEL_API bool kel_clip_will_accept(kel_clip_t* clip, kel_clip_t* other, int* err);
/* A new clip of target's format made from source packets first..last. */
KEL_API kel_clip_t* kel_clip_transcode(kel_clip_t* target, kel_clip_t* source, int first, int last,
                                       int* err, const _kel_progress_t* progress);
/* kel_clip_transcode of all of source, trimmed so that it plays exactly the
 * frames source plays: the encoder's priming (MP3: LAME's delay and the
 * decoder's 529 frames; AAC: one packet), the source's own trims and the
 * silence that completes the last packet are left out, and saving writes
 * them where the format can say so (an MP3's LAME tag, an MPEG-4 edit
 * list; PCM files leave the frames out). */
KEL_API kel_clip_t* kel_clip_transcode_exact(kel_clip_t* target, kel_clip_t* source, int* err,
                                             const _kel_progress_t* progress);
/* A new clip of `packets` silent packets in the clip's format. */
KEL_API kel_clip_t* kel_clip_create_silent(kel_clip_t* clip, int packets, int* err,
                                           const _kel_progress_t* progress);
/* A new empty clip of a format (KEL_FORMAT_*); bit_rate and flag (variable
 * bit rate) serve the coded formats, bits_per_sample the PCM formats. */
KEL_API kel_clip_t* kel_clip_create(int format, int channels, float sample_rate, int bits_per_sample,
                                    int bit_rate, int flag, int* err);
/* A clip made from two float arrays (left, right) of frames samples. */
KEL_API kel_clip_t* kel_clip_create_from_buffer(float** buffers, float sample_rate, int frames,
                                                int* err, const _kel_progress_t* progress);
KEL_API int kel_clip_packet_count(kel_clip_t* clip);
KEL_API int kel_clip_packet_frame_count(kel_clip_t* clip, int packet, int* err);

KEL_API kel_overview_t* kel_clip_overview_create(kel_clip_t* clip,
                                                 const _kel_overview_progress_t* progress);
KEL_API void kel_clip_overview_destroy(kel_overview_t* overview);
/* Fills out[2i] (maximum) and out[2i+1] (minimum) for `points` points over
 * packets first..last; dirty_run non-zero draws a quick sampled preview.
 * Returns the points delivered (fewer when cancelled). */
KEL_API int kel_overview_generate(kel_overview_t* overview, int first, int last, int points,
                                  int dirty_run, float* out, int* err);
/* One RMS value per packet of first..last. */
KEL_API int kel_rms_generate(kel_overview_t* overview, int first, int last, float* out, int* err);
KEL_API float kel_max_sample_find(kel_overview_t* overview, int first, int last, int* err);

/* Decodes one packet, with its gain and envelope, into buffers[0] and
 * buffers[1] (each at least the packet's frame count); returns the frames. */
KEL_API int kel_clip_packet_decode(kel_clip_t* clip, int packet, float** buffers, int* err);
/* Gains are linear factors (1.0 unchanged). MP3 and AAC change gain without
 * re-encoding, in whole steps of 2^(1/4) (about 1.505 dB): they keep the
 * stored wish and apply its step count truncated toward zero, so a wish of
 * 0.8 (-1.9 dB) plays at 0.841 (-1.5 dB), and an attenuation that lies
 * exactly on a step plays one step nearer to 1.0 (0.5 plays at 0.5946).
 *
 * The trap: kel_clip_packet_quantize_gain stores the exact step value it
 * returns, and for attenuations that value lies on a step, so the save then
 * applies one step less than the call reported (quantize -6 dB, report
 * -4.52 dB, hear -3.01 dB). Use it to show a value, not to store one. To
 * store a gain that plays at the value you report, call
 * kel_clip_packet_set_gain_nearest; to ask for n whole steps, pass it
 * powf(2, n / 4.0f). */
KEL_API int kel_clip_packet_set_gain(kel_clip_t* clip, int packet, float gain, int* err);
KEL_API float kel_clip_packet_get_gain(kel_clip_t* clip, int packet, int* err);
KEL_API float kel_clip_packet_quantize_gain(kel_clip_t* clip, int packet, int* err);
/* Stores the gain that makes decoding and saving apply the achievable gain
 * nearest (in decibels) to `gain`, and returns that applied gain: 2^(n/4)
 * for the nearest whole step n on MP3 and AAC, `gain` itself elsewhere.
 * The stored value (kel_clip_packet_get_gain) may differ from the result:
 * on MP3 and AAC it lies half a step beyond it, away from 1.0. A negative
 * gain fails with KEL_ERR_PARAMETER. */
KEL_API float kel_clip_packet_set_gain_nearest(kel_clip_t* clip, int packet, float gain, int* err);
/* The gain that decoding and saving really apply to the packet for its
 * stored gain; stores nothing. */
KEL_API float kel_clip_packet_applied_gain(kel_clip_t* clip, int packet, int* err);
/* A fade over packets first..last from level `from` to level `to` (0..1). */
KEL_API int kel_clip_log_fade(kel_clip_t* clip, int first, int last, float from, float to, int* err);
KEL_API void kel_clip_log_fade_remove(kel_clip_t* clip, int first, int last, int* err);
/* Packets before `packet` that must be decoded first for it to decode. */
KEL_API int kel_clip_packet_preroll_count(kel_clip_t* clip, int packet, int* err);
/* Packets that let `packet` decode out of its context when placed in front
 * of it; null with no error when none are needed. */
KEL_API kel_clip_t* kel_clip_create_padding_clip(kel_clip_t* clip, int packet, int* err);

/* The clip's edges: frames of its decoded packets that are not part of the
 * audio. `start` frames from the start of the first packet's decode (an
 * encoder's delay, a decoder's priming, padding frames put in front for an
 * MP3 bit reservoir) and `end` frames from the end of the last packet's
 * (the padding that completes it). Decoding packets (kel_clip_packet_decode)
 * and the overview always give whole packets; saving writes the trims
 * where the format has a place for them (MP3: the encoder delay and
 * padding fields of the LAME extension of the Info frame, which ffmpeg and
 * other players honour; a clip without trims saves without it). Opening an
 * MP3 reads them from its LAME tag (values that do not fit the file are
 * ignored). A copy or cut starting at packet 0 keeps the start trim (a
 * later one starts with none), one ending at the last packet keeps the end
 * trim; inserting at the very start or end takes the inserted clip's trim
 * for that end; a padding clip (kel_clip_create_padding_clip) trims all
 * of its frames, so that putting it in front keeps it unheard. */
KEL_API void kel_clip_get_trims(kel_clip_t* clip, int* start, int* end);
/* KEL_ERR_PARAMETER when a trim is negative or the two leave no frame. */
KEL_API int kel_clip_set_trims(kel_clip_t* clip, int start, int end, int* err);

/* Measures the loudness of packets first..last, decoding each once with its
 * gain and envelope (what a listener hears), through libebur128. Returns a
 * meter that holds the measurement, or null with the code (KEL_ERR_PACKET_NUMBER,
 * KEL_ERR_CANCELLED, a decoding error). Free it with kel_loudness_meter_free;
 * it does not refer to the clip. A single-channel clip counts once.
 * Decoding runs on the calling thread; the measuring of the decoded audio
 * runs on a second thread of its own, ended before the call returns. */
KEL_API kel_loudness_meter_t* kel_clip_measure_loudness(kel_clip_t* clip, int first, int last, int* err,
                                                        const _kel_progress_t* progress);
KEL_API void kel_loudness_meter_result(const kel_loudness_meter_t* meter, kel_loudness_t* out);
/* Several meters as one programme (an album): integrated loudness and range
 * over all their blocks, the largest peaks. Returns 0 or KEL_ERR_PARAMETER. */
KEL_API int kel_loudness_album(const kel_loudness_meter_t* const* meters, int count, kel_loudness_t* out);
KEL_API void kel_loudness_meter_free(kel_loudness_meter_t* meter);
/* Proposes the gains that bring packets first..last, measured as `measured`
 * (kel_loudness_meter_result, or kel_loudness_album for one gain over an
 * album), to target_lufs without their true peak passing max_true_peak_dbtp:
 * formats that change loudness in whole steps (MP3, AAC: 1.5 dB) get the
 * step nearest the target that stays at or under the ceiling, the others
 * the exact change. Fills gains[0..last-first] with the value to store in
 * each packet (kel_clip_packet_set_gain), each packet's own gain times the
 * change, so that edited gains keep their shape; stores nothing. Returns
 * the change in dB the first packet gets, or NaN with KEL_ERR_PARAMETER
 * (no integrated loudness: digital silence; a NaN value) or
 * KEL_ERR_PACKET_NUMBER. */
KEL_API double kel_clip_propose_gains(kel_clip_t* clip, int first, int last, const kel_loudness_t* measured,
                                      double target_lufs, double max_true_peak_dbtp, float* gains, int* err);

/* Frames per packet of the PCM formats (WAVE, AIFF, CAF) when a file is
 * opened; 0 (the initial value) means 1024. Process-wide, unsynchronised. */
KEL_API void kel_set_raw_packet_size(int size);
KEL_API int kel_get_raw_packet_size(void);

/* ---- Tags --------------------------------------------------------------- */

/* Copies the tags of the audio file `from` into the audio file `to` (for
 * instance one kel_clip_save_to has just written), replacing any tags `to`
 * has. Between files of one container every item goes over: ID3v2 frames
 * (pictures included), ID3v1 and APE for MP3; every ilst item (covr
 * included) for AAC and Apple Lossless; RIFF INFO and ID3 chunks for WAVE;
 * ID3 and text chunks for AIFF. ID3v2 frames also go whole among MP3, WAVE
 * and AIFF. Otherwise the common fields (title, artist, album, track
 * number, date, genre, comment) and the front cover map over. ID3v2 frames
 * that state the audio's length or byte positions (TLEN, MLLT, SEEK, ASPI)
 * are left out, as `to` is taken to hold edited audio, and so are loudness
 * values measured on the source (ReplayGain and R128 items, RVA2, iTunes
 * Sound Check), which no longer hold for it. CAF files neither
 * give nor take tags.
 * Returns the code also left in *err: 0 on success, also when `from` has
 * no tags (then `to` keeps none); KEL_ERR_SAVED_WITH_ERRORS, a warning,
 * when a tag block of `from` cannot be read or `to` cannot take the tags:
 * `to` then keeps its audio as it was, untouched; KEL_ERR_OPEN,
 * KEL_ERR_OPEN_READ or KEL_ERR_IS_DIRECTORY when either file cannot be
 * opened; KEL_ERR_PARAMETER for a null or empty path. `to` is rewritten
 * as a new file of the same name (written beside it, then renamed over
 * it), so its directory must be writable. */
KEL_API int kel_tags_copy(const char* from, const char* to, int* err);
/* Writes ReplayGain values into the tags of the file at path, the audio left
 * as it is: REPLAYGAIN_TRACK_GAIN ("-6.52 dB") and _TRACK_PEAK ("0.912345",
 * linear), and when album_gain_db is finite _ALBUM_GAIN and _ALBUM_PEAK; ID3v2
 * TXXX frames for MP3, WAVE and AIFF, iTunes freeform items for MPEG-4.
 * Values of those names are replaced, other tags kept. Returns (and leaves
 * in *err) 0; KEL_ERR_UNSUPPORTED for CAF; KEL_ERR_SAVED_WITH_ERRORS when the
 * tags could not be written (the file stays as it was); the open errors of
 * kel_tags_copy; KEL_ERR_PARAMETER for a bad value. */
KEL_API int kel_tags_set_replaygain(const char* path, double track_gain_db, double track_peak,
                                    double album_gain_db, double album_peak, int* err);

/* Writes a track's title, artist and track number into the tags of the file
 * at path, the audio and every other tag left as they are (for instance into
 * a piece of a longer recording whose tags kel_tags_copy has carried over).
 * A null title or artist, or a track of 0, leaves that field as it is. MP3:
 * ID3v2 (created when missing) and any ID3v1 or APE tag the file has;
 * MPEG-4: the ilst items; WAVE: the ID3 chunk and the INFO list; AIFF: the
 * ID3 chunk. Returns (and leaves in *err) what kel_tags_set_replaygain does. */
KEL_API int kel_tags_set_track(const char* path, const char* title, const char* artist, int track, int* err);

/* ---- Error objects ---------------------------------------------------- */

/* The error domain of every kel_error_t. */
#define KEL_ERROR_DOMAIN "kQDKELErrorDomain"

typedef struct kel_error kel_error_t;

/* False exactly for 0 and KEL_ERR_SAVED_WITH_ERRORS (a warning); every
 * other value, unknown ones included, is fatal. */
KEL_API bool KELErrorIsFatal(int code);

/* Builds the readable form of an error code. The texts are looked up with
 * gettext in the caller's current text domain (the library never selects a
 * domain), so a host that installs a translation catalogue and a locale
 * gets translated messages; in the C locale they stay English. The lookup
 * key is the complete English text as displayed, including the support
 * address and full stop of the texts that end in "Please contact". The
 * codes' own messages are looked up once, on the first call, and kept for
 * the life of the process. filename may be null; when given it is quoted
 * into the recovery suggestion where the text has a place for it. Returns
 * null only when memory runs out. */
KEL_API kel_error_t* kel_error_create(int code, const char* filename);
/* Frees an error object; null is ignored. */
KEL_API void kel_error_free(kel_error_t* error);

/* The accessors' strings live as long as the error object. A null object
 * (allocation failed) reads as KEL_ERR_UNKNOWN with empty texts. */
KEL_API const char* kel_error_domain(const kel_error_t* error);
KEL_API int kel_error_code(const kel_error_t* error);
/* Short description, for instance "An error occurred". */
KEL_API const char* kel_error_description(const kel_error_t* error);
/* The specific message, with the file name filled in. */
KEL_API const char* kel_error_recovery_suggestion(const kel_error_t* error);

#ifdef __cplusplus
}
#endif

#endif /* KEL_H */
