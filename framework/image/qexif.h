// QExif: the EXIF record of a JPEG picture, read from the raw bytes of the whole file.
//
// The slideshow needs only the result code and `orientation`; the other fields are recorded for
// whoever wants them. Every parse starts from a cleared record (numbers 0, strings empty), except
// that a buffer which is not a JPEG stream (1982) leaves the record as it was. A parse that fails
// later keeps the fields read so far. Nothing is logged: the caller reports the code.
//
// The reader never trusts the file. Offsets and counts are checked before each read; an entry
// whose value lies outside the segment is ignored, and an IFD that runs past the segment answers
// 1985 (one that overlaps the TIFF header is read as it stands). The EXIF and GPS pointers are
// followed wherever they lead, back to IFD0 or to each other included; nothing is followed from
// those two. No memory is allocated for values except the string fields' own copies. Text values
// lose a final zero byte; a text stops at its first zero.
//
// Besides the EXIF block, ReadFromJpeg walks the segments before the first scan by their lengths
// for the first comment (COM) segment; a length that runs past the data ends the walk there. The
// Windows title (XPTitle, bytes of UTF-16LE whatever the block's byte order) becomes UTF-8, an
// unpaired surrogate U+FFFD.
//
// Decoded forms: rationals become doubles (numerator / denominator, 0 when the denominator is 0).
// Formats 7 (undefined), 9 (signed long) and 10 (signed rational) are accepted but carry no
// decoded value: a rational field given a signed rational (as writers store the exposure bias)
// takes it as 0. GPS latitude and longitude are kept as degrees,
// minutes and seconds together with the reference letter, and combined into signed decimal
// degrees (south and west negative). The altitude is in metres, negative when its reference byte
// says below sea level.
#pragma once

#include <cstddef>
#include <cstdint>

#include "framework/qstring.h"

class QExif {
 public:
  // Result codes of the readers.
  enum Result : int32_t {
    OK = 0,
    NOT_JPEG = 1982,       // no start marker, or no end marker
    NO_EXIF = 1983,        // no APP1 marker, or its payload is not an EXIF block
    BAD_BYTE_ORDER = 1984, // TIFF header neither "II" nor "MM"
    CORRUPT = 1985         // lengths or offsets outside the data, or TIFF magic not 42
  };

  // One of latitude or longitude, as stored: three rationals and the reference letter.
  struct GeoCoordinate {
    double degrees = 0;
    double minutes = 0;
    double seconds = 0;
    char direction = 0;  // 'N', 'S', 'E' or 'W'; 0 when absent
  };

  // The GPS IFD. `latitude`/`longitude` are signed decimal degrees, valid only when
  // `hasPosition` (both coordinates were read).
  struct GeoLocation {
    bool hasPosition = false;
    double latitude = 0;
    double longitude = 0;
    GeoCoordinate latComponents;
    GeoCoordinate lonComponents;
    double altitude = 0;  // metres, negative below sea level
    double dop = 0;       // precision (dilution of position); 0 when absent
  };

  // The lens information tag: focal range in millimetres and the widest apertures at its ends.
  struct LensInfo {
    double focalLengthMin = 0;
    double focalLengthMax = 0;
    double fStopMin = 0;  // at the shortest focal length
    double fStopMax = 0;  // at the longest focal length
  };

  // Parses a whole JPEG file held in memory; answers one of the Result codes. `bytes` may be
  // null (1982). Only the first APP1 marker is examined. `comment` is read even when the file
  // has no EXIF block.
  int32_t ReadFromJpeg(const uint8_t* bytes, size_t length);
  // The same over a framework string's text. The string ends at its first zero byte, so only
  // that prefix of a file is seen (a JPEG usually answers 1982 or 1983 this way).
  int32_t ReadFromJpeg(const qstring& data);
  // Parses an APP1 payload starting with "Exif" and two zero bytes; answers a Result code.
  int32_t ReadExifSegment(const uint8_t* data, size_t length);
  // Numbers to 0, strings empty.
  void Clear();

  // The two fields a picture index reads for every file, found without allocating.
  struct Taken {
    uint16_t orientation = 0;       // as the record's `orientation`
    char dateTimeOriginal[20] = {}; // the text up to its first zero; "" when absent or longer
  };
  // Reads them from a bare TIFF structure: `tiff` is its byte-order mark (an EXIF segment's
  // byte 6, a TIFF file's first byte) and offsets count from there. Checks bounds as
  // ReadExifSegment does and answers its codes; `taken` keeps what was read before a failure.
  static int32_t ReadTaken(const uint8_t* tiff, size_t length, Taken* taken);

  // Bytes WriteOrientationSegment writes: the APP1 marker, the length and a 32-byte payload.
  static constexpr size_t ORIENTATION_SEGMENT_SIZE = 36;
  // Writes the smallest APP1 segment that carries `orientation`: marker and length, then "Exif",
  // two zero bytes, a big-endian TIFF header and IFD0 with the one Orientation entry and no next
  // IFD. For the writers of test and demonstration pictures, which put it right after a JPEG's
  // start marker (a libjpeg writer gives the payload, from byte 4, to jpeg_write_marker).
  static void WriteOrientationSegment(uint16_t orientation, uint8_t* out);

  // ---- IFD0 ----
  uint8_t littleEndian = 0;  // 1 for "II", 0 for "MM"
  qstring description;
  qstring cameraMake;
  qstring cameraModel;
  uint16_t orientation = 0;  // 1..8 as stored; 0 when absent or not a SHORT
  uint16_t sampleBits = 0;
  qstring software;
  qstring dateTime;
  qstring rightsNotice;
  qstring windowsTitle;  // XPTitle, as UTF-8

  // ---- JPEG comment segment ----
  qstring comment;  // its bytes as written, up to a zero

  // ---- EXIF sub-IFD ----
  double exposureTime = 0;      // seconds
  qstring dateTimeOriginal;     // first taken
  qstring dateTimeDigitized;
  double shutterSpeedValue = 0; // APEX value, as stored
  double exposureBias = 0;      // EV
  double subjectDistance = 0;   // metres
  uint16_t meteringMode = 0;
  uint16_t flash = 0;           // the flash bits as stored; bit 0 says it fired
  double focalLength = 0;       // millimetres
  qstring subSecTimeOriginal;
  uint32_t imageWidth = 0;      // pixel x dimension, SHORT or LONG
  double focalPlaneXResolution = 0;
  double focalPlaneYResolution = 0;
  uint16_t focalLengthIn35mm = 0;
  LensInfo lensInfo;
  qstring lensMake;

  // ---- GPS IFD ----
  GeoLocation geoLocation;
};
