// The error codes by name. Every failure inside the library is one of these
// four-character codes; the literal is written only here.
//
// The reported codes reach the host: each has a row in the error table
// (errors/errortable.cpp, checked there at compile time) and equals its
// KEL_ERR_* twin in kel.h (checked below). The internal codes pass between
// the library's own layers and are turned into a reported code, or into
// silence, before they could reach the host; they have no message (kel.h
// names them all the same, for hosts that meet them through a decode).
//
// How a code travels: the operations of the clip and packet model and the
// flat entry points keep the int* err their callers know (a null err is
// the entry points' business, never the model's); every other function
// that can fail returns its code, 0 for success, and gives its results
// through its arguments. A warning ("Egga") is returned like a failure and
// the caller decides what it keeps.
#ifndef KEL_CORE_ERRORCODES_H
#define KEL_CORE_ERRORCODES_H

#include "core/fourcc.h"
#include "kel.h"

#include <array>
#include <cerrno>
#include <cstdint>

namespace KEL {

// ---- reported ----
constexpr int32_t kErrUnknown            = fourcc("EUnk"); // unknown error or failed allocation
constexpr int32_t kErrInternal           = fourcc("EILC"); // internal error
constexpr int32_t kErrOpen               = fourcc("Efop"); // file cannot be opened for reading
constexpr int32_t kErrIo                 = fourcc("EIO "); // input/output error
constexpr int32_t kErrOpenRead           = fourcc("Efor"); // file cannot be opened for reading (permissions)
constexpr int32_t kErrOpenWrite          = fourcc("Efow"); // file cannot be saved there
constexpr int32_t kErrFormatUnrecognized = fourcc("Efmu"); // unrecognised format
constexpr int32_t kErrFormatUnsupported  = fourcc("Efms"); // unsupported variant of a format
constexpr int32_t kErrEof                = fourcc("Eeof"); // unexpected end of file
constexpr int32_t kErrCorruptAiff        = fourcc("Eaif"); // corrupt AIFF file
constexpr int32_t kErrCorruptAac         = fourcc("Eaac"); // corrupt AAC file
constexpr int32_t kErrCorruptMp3         = fourcc("Emp3"); // corrupt MP3 file
constexpr int32_t kErrCorruptAlac        = fourcc("Ealc"); // corrupt Apple Lossless file
constexpr int32_t kErrCorruptWave        = fourcc("Ewav"); // corrupt WAVE file
constexpr int32_t kErrCorruptCaf         = fourcc("Ecaf"); // corrupt CAF file
constexpr int32_t kErrPacketNumber       = fourcc("EPnm"); // packet index or range out of bounds
constexpr int32_t kErrClipType           = fourcc("Eclt"); // wrong clip type
constexpr int32_t kErrClipMismatch       = fourcc("Ecld"); // clip formats do not match
constexpr int32_t kErrNotImplemented     = fourcc("Enot"); // not implemented
constexpr int32_t kErrCodec              = fourcc("Ecod"); // codec initialisation failed
constexpr int32_t kErrEmpty              = fourcc("Empt"); // empty clip
constexpr int32_t kErrParameter          = fourcc("Eprm"); // bad parameter
constexpr int32_t kErrScale              = fourcc("Escl"); // bad overview scale
constexpr int32_t kErrDecode             = fourcc("Edec"); // packet decoding failed
constexpr int32_t kErrUnsupported        = fourcc("Esup"); // operation not supported
constexpr int32_t kErrBitstreamEnd       = fourcc("Ebef"); // end of data inside a bitstream
constexpr int32_t kErrBitstreamParse     = fourcc("Ebps"); // bitstream parse error
constexpr int32_t kErrCancelled          = fourcc("Ebrk"); // cancelled through the progress callback
constexpr int32_t kErrPacketCopy         = fourcc("Epcp"); // a shared packet could not be copied
constexpr int32_t kErrTranscode          = fourcc("Etrn"); // packet transcoding failed
constexpr int32_t kErrEncode             = fourcc("Eenc"); // packet encoding failed
constexpr int32_t kErrTooLong            = fourcc("Esmp"); // too long for the save format
constexpr int32_t kErrTooLarge           = fourcc("Ebyt"); // too large for the save format
constexpr int32_t kErrSavedWithErrors    = fourcc("Egga"); // saved with errors (a warning)
// Not a four-character code: EISDIR, which the savers pass through.
constexpr int32_t kErrIsDirectory = EISDIR;

// ---- internal ----
// A packet's stored bytes cannot be read whole: the transcoder substitutes
// silence for the packet.
constexpr int32_t kErrPacketBytes = fourcc("Ersz");
// An MP3 frame's bit reservoir reaches before the first frame of the clip.
constexpr int32_t kErrReservoirBeforeStart = fourcc("Epre");

// Every reported code, in the order of kel.h; the error table has a row
// for each of these and for no other code but 0.
constexpr std::array<int32_t, 35> kReportedErrors = {{
    kErrUnknown,
    kErrInternal,
    kErrOpen,
    kErrIo,
    kErrOpenRead,
    kErrOpenWrite,
    kErrFormatUnrecognized,
    kErrFormatUnsupported,
    kErrEof,
    kErrCorruptAiff,
    kErrCorruptAac,
    kErrCorruptMp3,
    kErrCorruptAlac,
    kErrCorruptWave,
    kErrCorruptCaf,
    kErrPacketNumber,
    kErrClipType,
    kErrClipMismatch,
    kErrNotImplemented,
    kErrCodec,
    kErrEmpty,
    kErrParameter,
    kErrScale,
    kErrDecode,
    kErrUnsupported,
    kErrBitstreamEnd,
    kErrBitstreamParse,
    kErrCancelled,
    kErrPacketCopy,
    kErrTranscode,
    kErrEncode,
    kErrTooLong,
    kErrTooLarge,
    kErrSavedWithErrors,
    kErrIsDirectory,
}};

static_assert(kErrPacketBytes == KEL_ERR_PACKET_SIZE, "kel.h and the library disagree on Ersz");
static_assert(kErrReservoirBeforeStart == KEL_ERR_PREROLL, "kel.h and the library disagree on Epre");
static_assert(kErrUnknown == KEL_ERR_UNKNOWN, "kel.h and the library disagree on EUnk");
static_assert(kErrInternal == KEL_ERR_INTERNAL, "kel.h and the library disagree on EILC");
static_assert(kErrOpen == KEL_ERR_OPEN, "kel.h and the library disagree on Efop");
static_assert(kErrIo == KEL_ERR_IO, "kel.h and the library disagree on EIO ");
static_assert(kErrOpenRead == KEL_ERR_OPEN_READ, "kel.h and the library disagree on Efor");
static_assert(kErrOpenWrite == KEL_ERR_OPEN_WRITE, "kel.h and the library disagree on Efow");
static_assert(kErrFormatUnrecognized == KEL_ERR_FORMAT_UNRECOGNIZED, "kel.h and the library disagree on Efmu");
static_assert(kErrFormatUnsupported == KEL_ERR_FORMAT_UNSUPPORTED, "kel.h and the library disagree on Efms");
static_assert(kErrEof == KEL_ERR_EOF, "kel.h and the library disagree on Eeof");
static_assert(kErrCorruptAiff == KEL_ERR_CORRUPT_AIFF, "kel.h and the library disagree on Eaif");
static_assert(kErrCorruptAac == KEL_ERR_CORRUPT_AAC, "kel.h and the library disagree on Eaac");
static_assert(kErrCorruptMp3 == KEL_ERR_CORRUPT_MP3, "kel.h and the library disagree on Emp3");
static_assert(kErrCorruptAlac == KEL_ERR_CORRUPT_ALAC, "kel.h and the library disagree on Ealc");
static_assert(kErrCorruptWave == KEL_ERR_CORRUPT_WAVE, "kel.h and the library disagree on Ewav");
static_assert(kErrCorruptCaf == KEL_ERR_CORRUPT_CAF, "kel.h and the library disagree on Ecaf");
static_assert(kErrPacketNumber == KEL_ERR_PACKET_NUMBER, "kel.h and the library disagree on EPnm");
static_assert(kErrClipType == KEL_ERR_CLIP_TYPE, "kel.h and the library disagree on Eclt");
static_assert(kErrClipMismatch == KEL_ERR_CLIP_MISMATCH, "kel.h and the library disagree on Ecld");
static_assert(kErrNotImplemented == KEL_ERR_NOT_IMPLEMENTED, "kel.h and the library disagree on Enot");
static_assert(kErrCodec == KEL_ERR_CODEC, "kel.h and the library disagree on Ecod");
static_assert(kErrEmpty == KEL_ERR_EMPTY, "kel.h and the library disagree on Empt");
static_assert(kErrParameter == KEL_ERR_PARAMETER, "kel.h and the library disagree on Eprm");
static_assert(kErrScale == KEL_ERR_SCALE, "kel.h and the library disagree on Escl");
static_assert(kErrDecode == KEL_ERR_DECODE, "kel.h and the library disagree on Edec");
static_assert(kErrUnsupported == KEL_ERR_UNSUPPORTED, "kel.h and the library disagree on Esup");
static_assert(kErrBitstreamEnd == KEL_ERR_BITSTREAM_END, "kel.h and the library disagree on Ebef");
static_assert(kErrBitstreamParse == KEL_ERR_BITSTREAM_PARSE, "kel.h and the library disagree on Ebps");
static_assert(kErrCancelled == KEL_ERR_CANCELLED, "kel.h and the library disagree on Ebrk");
static_assert(kErrPacketCopy == KEL_ERR_PACKET_COPY, "kel.h and the library disagree on Epcp");
static_assert(kErrTranscode == KEL_ERR_TRANSCODE, "kel.h and the library disagree on Etrn");
static_assert(kErrEncode == KEL_ERR_ENCODE, "kel.h and the library disagree on Eenc");
static_assert(kErrTooLong == KEL_ERR_TOO_LONG, "kel.h and the library disagree on Esmp");
static_assert(kErrTooLarge == KEL_ERR_TOO_LARGE, "kel.h and the library disagree on Ebyt");
static_assert(kErrSavedWithErrors == KEL_ERR_SAVED_WITH_ERRORS, "kel.h and the library disagree on Egga");
static_assert(kErrIsDirectory == KEL_ERR_IS_DIRECTORY, "kel.h and the library disagree on EISDIR");

} // namespace KEL

#endif
