#include "framework/image/qexif.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

// ---------------------------------------------------------------------------------------------
// Byte access and directory entries
// ---------------------------------------------------------------------------------------------

// The TIFF header sits 6 bytes into the APP1 payload; file offsets count from there.
constexpr size_t kTiffStart = 6;
// "YYYY:MM:DD HH:MM:SS" and its final zero.
constexpr size_t kDateBytes = 20;
constexpr uint8_t kInvalidFormat = 255;

enum Format : uint16_t {
  BYTE = 1, ASCII = 2, SHORT = 3, LONG = 4, RATIONAL = 5, UNDEFINED = 7, SLONG = 9, SRATIONAL = 10
};

// Bytes per component; 0 for a format that is not decoded.
size_t ComponentSize(uint16_t format) {
  switch (format) {
    case BYTE: case ASCII: return 1;
    case SHORT: return 2;
    case LONG: return 4;
    case RATIONAL: return 8;
    default: return 0;
  }
}

// The segment being parsed. Callers check every position before reading through it.
struct Segment {
  const uint8_t* data;
  size_t length;
  bool little;
  size_t base;  // where the TIFF header lies, which the offsets count from

  uint16_t U16(size_t at) const {
    return little ? static_cast<uint16_t>(data[at] | data[at + 1] << 8)
                  : static_cast<uint16_t>(data[at] << 8 | data[at + 1]);
  }
  uint32_t U32(size_t at) const {
    uint32_t a = data[at], b = data[at + 1], c = data[at + 2], d = data[at + 3];
    return little ? (d << 24 | c << 16 | b << 8 | a) : (a << 24 | b << 16 | c << 8 | d);
  }
};

// One 12-byte directory entry. `hasValue` is set only for a decoded format whose components all
// lie in the segment; UNDEFINED, SLONG and SRATIONAL are accepted but carry no decoded value.
struct Entry {
  uint16_t tag = 0;
  uint16_t format = 0;
  uint32_t count = 0;
  uint32_t raw = 0;  // the value-or-offset field
  bool hasValue = false;
  size_t valueAt = 0;
};

// `at` + 12 must lie within the segment.
Entry DecodeEntry(const Segment& s, size_t at) {
  Entry e;
  e.tag = s.U16(at);
  e.format = s.U16(at + 2);
  e.count = s.U32(at + 4);
  e.raw = s.U32(at + 8);
  if (e.format == UNDEFINED || e.format == SLONG || e.format == SRATIONAL) return e;
  size_t unit = ComponentSize(e.format);
  if (unit == 0) {
    e.format = kInvalidFormat;
    return e;
  }
  uint64_t bytes = static_cast<uint64_t>(e.count) * unit;  // at most 2^35: no overflow
  uint64_t pos = bytes <= 4 ? at + 8 : static_cast<uint64_t>(e.raw) + s.base;
  if (pos > s.length || bytes > s.length - pos) return e;
  e.hasValue = true;
  e.valueAt = static_cast<size_t>(pos);
  return e;
}

bool IsText(const Entry& e) { return e.format == ASCII && e.hasValue; }
bool IsShort(const Entry& e) { return e.format == SHORT && e.hasValue && e.count >= 1; }
bool IsUnsigned(const Entry& e) {
  return (e.format == SHORT || e.format == LONG) && e.hasValue && e.count >= 1;
}
// A signed rational is taken too, but as it carries no decoded value it reads as 0.
bool IsRational(const Entry& e, uint32_t minCount = 1) {
  return ((e.format == RATIONAL && e.hasValue) || e.format == SRATIONAL) && e.count >= minCount;
}

// Component i of a SHORT, LONG or BYTE entry; i < count.
uint32_t UnsignedAt(const Segment& s, const Entry& e, uint32_t i) {
  size_t at = e.valueAt + static_cast<size_t>(i) * ComponentSize(e.format);
  if (e.format == SHORT) return s.U16(at);
  if (e.format == LONG) return s.U32(at);
  return s.data[at];
}

// Component i of a rational entry; a zero denominator, or no decoded value, reads as 0.
double RationalAt(const Segment& s, const Entry& e, uint32_t i) {
  if (!e.hasValue) return 0;
  size_t at = e.valueAt + static_cast<size_t>(i) * 8;
  uint32_t num = s.U32(at), den = s.U32(at + 4);
  if (den == 0) return 0;
  return static_cast<double>(num) / den;
}

// Text values: a final zero byte is not part of the text.
void TakeText(const Segment& s, const Entry& e, qstring* out) {
  size_t n = e.count;
  const char* p = reinterpret_cast<const char*>(s.data + e.valueAt);
  if (n > 0 && p[n - 1] == 0) --n;
  *out = std::string(p, n).c_str();
}

// Appends code point `c` as UTF-8.
void PutUtf8(uint32_t c, std::string* out) {
  if (c < 0x80) {
    out->push_back(char(c));
  } else if (c < 0x800) {
    out->push_back(char(0xC0 | c >> 6));
    out->push_back(char(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out->push_back(char(0xE0 | c >> 12));
    out->push_back(char(0x80 | (c >> 6 & 0x3F)));
    out->push_back(char(0x80 | (c & 0x3F)));
  } else {
    out->push_back(char(0xF0 | c >> 18));
    out->push_back(char(0x80 | (c >> 12 & 0x3F)));
    out->push_back(char(0x80 | (c >> 6 & 0x3F)));
    out->push_back(char(0x80 | (c & 0x3F)));
  }
}

// Windows writes its XP tags as UTF-16LE bytes in any block; the text ends at a zero unit, and
// an odd last byte is no unit.
void TakeUtf16Text(const Segment& s, const Entry& e, qstring* out) {
  const uint8_t* p = s.data + e.valueAt;
  const size_t units = e.count / 2;
  std::string text;
  for (size_t i = 0; i < units; ++i) {
    uint32_t c = p[2 * i] | p[2 * i + 1] << 8;
    if (c == 0) break;
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < units) {
      const uint32_t low = p[2 * i + 2] | p[2 * i + 3] << 8;
      if (low >= 0xDC00 && low < 0xE000) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
    }
    if (c >= 0xD800 && c < 0xE000) c = 0xFFFD;
    PutUtf8(c, &text);
  }
  *out = text.c_str();
}

// The first comment segment before the scan, found by following the segments' lengths from the
// start marker; `end` is where the file's data end.
void TakeComment(const uint8_t* bytes, size_t end, qstring* out) {
  size_t i = 2;
  while (i + 4 <= end && bytes[i] == 0xFF) {
    const uint8_t marker = bytes[i + 1];
    if (marker == 0xFF) {  // fill byte
      ++i;
      continue;
    }
    if (marker == 0xDA || marker == 0xD9) return;  // the scan, or the end
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) {  // markers without a length
      i += 2;
      continue;
    }
    const size_t length = size_t(bytes[i + 2]) << 8 | bytes[i + 3];
    if (length < 2 || length > end - i - 2) return;
    if (marker == 0xFE) {
      const char* text = reinterpret_cast<const char*>(bytes + i + 4);
      *out = std::string(text, std::find(text, text + length - 2, '\0')).c_str();
      return;
    }
    i += 2 + length;
  }
}

// Where an IFD's entries begin, or 0 when the directory does not fit the segment. A directory
// overlapping the TIFF header is read like any other: only the bounds matter. In an EXIF segment
// `pos` is at least kTiffStart, so 0 never names a directory; in a bare TIFF block a directory
// at offset 0 would be its own header, and is refused.
size_t CheckIfd(const Segment& s, uint64_t pos) {
  if (pos >= s.length || pos + 2 > s.length) return 0;
  uint64_t n = s.U16(static_cast<size_t>(pos));
  if (n * 12 + 6 + pos > s.length) return 0;
  return static_cast<size_t>(pos);
}

// ---------------------------------------------------------------------------------------------
// The three directories
// ---------------------------------------------------------------------------------------------

struct Links {
  uint64_t exifIfd = 0;  // positions in the segment; 0 when there is none
  uint64_t gpsIfd = 0;
};

void TakeMainEntry(const Segment& s, const Entry& e, QExif* x, Links* links) {
  switch (e.tag) {
    case 258: if (IsShort(e)) x->sampleBits = static_cast<uint16_t>(UnsignedAt(s, e, 0)); break;
    case 274: if (IsShort(e)) x->orientation = static_cast<uint16_t>(UnsignedAt(s, e, 0)); break;
    case 270: if (IsText(e)) TakeText(s, e, &x->description); break;
    case 271: if (IsText(e)) TakeText(s, e, &x->cameraMake); break;
    case 272: if (IsText(e)) TakeText(s, e, &x->cameraModel); break;
    case 305: if (IsText(e)) TakeText(s, e, &x->software); break;
    case 306: if (IsText(e)) TakeText(s, e, &x->dateTime); break;
    case 33432: if (IsText(e)) TakeText(s, e, &x->rightsNotice); break;
    case 40091: if (e.format == BYTE && e.hasValue) TakeUtf16Text(s, e, &x->windowsTitle); break;
    case 34665:
      if (IsUnsigned(e)) links->exifIfd = uint64_t{UnsignedAt(s, e, 0)} + s.base;
      break;
    case 34853:
      if (IsUnsigned(e)) links->gpsIfd = uint64_t{UnsignedAt(s, e, 0)} + s.base;
      break;
    default: break;
  }
}

void TakeCameraEntry(const Segment& s, const Entry& e, QExif* x) {
  switch (e.tag) {
    case 33434: if (IsRational(e)) x->exposureTime = RationalAt(s, e, 0); break;
    case 36867: if (IsText(e)) TakeText(s, e, &x->dateTimeOriginal); break;
    case 36868: if (IsText(e)) TakeText(s, e, &x->dateTimeDigitized); break;
    case 37377: if (IsRational(e)) x->shutterSpeedValue = RationalAt(s, e, 0); break;
    case 37380: if (IsRational(e)) x->exposureBias = RationalAt(s, e, 0); break;
    case 37382: if (IsRational(e)) x->subjectDistance = RationalAt(s, e, 0); break;
    case 37383: if (IsShort(e)) x->meteringMode = static_cast<uint16_t>(UnsignedAt(s, e, 0)); break;
    case 37385: if (IsShort(e)) x->flash = static_cast<uint16_t>(UnsignedAt(s, e, 0)); break;
    case 37386: if (IsRational(e)) x->focalLength = RationalAt(s, e, 0); break;
    case 37521: if (IsText(e)) TakeText(s, e, &x->subSecTimeOriginal); break;
    case 40962: if (IsUnsigned(e)) x->imageWidth = UnsignedAt(s, e, 0); break;
    case 41486: if (IsRational(e)) x->focalPlaneXResolution = RationalAt(s, e, 0); break;
    case 41487: if (IsRational(e)) x->focalPlaneYResolution = RationalAt(s, e, 0); break;
    case 41989:
      if (IsShort(e)) x->focalLengthIn35mm = static_cast<uint16_t>(UnsignedAt(s, e, 0));
      break;
    case 42034:
      if (IsRational(e, 4)) {
        x->lensInfo.focalLengthMin = RationalAt(s, e, 0);
        x->lensInfo.focalLengthMax = RationalAt(s, e, 1);
        x->lensInfo.fStopMin = RationalAt(s, e, 2);
        x->lensInfo.fStopMax = RationalAt(s, e, 3);
      }
      break;
    case 42035: if (IsText(e)) TakeText(s, e, &x->lensMake); break;
    default: break;
  }
}

// The GPS tags arrive in any order, so references and values are combined afterwards.
struct GpsParts {
  bool hasLat = false, hasLon = false;
  uint32_t altitudeRef = 0;
};

char FirstChar(const Segment& s, const Entry& e) { return static_cast<char>(s.data[e.valueAt]); }

void TakeCoordinate(const Segment& s, const Entry& e, QExif::GeoCoordinate* c) {
  c->degrees = RationalAt(s, e, 0);
  c->minutes = RationalAt(s, e, 1);
  c->seconds = RationalAt(s, e, 2);
}

void TakeGpsEntry(const Segment& s, const Entry& e, QExif::GeoLocation* g, GpsParts* parts) {
  bool dms = IsRational(e) && e.count == 3;
  switch (e.tag) {
    case 1: if (IsText(e) && e.count >= 1) g->latComponents.direction = FirstChar(s, e); break;
    case 2: if (dms) { TakeCoordinate(s, e, &g->latComponents); parts->hasLat = true; } break;
    case 3: if (IsText(e) && e.count >= 1) g->lonComponents.direction = FirstChar(s, e); break;
    case 4: if (dms) { TakeCoordinate(s, e, &g->lonComponents); parts->hasLon = true; } break;
    case 5:
      if ((e.format == BYTE || e.format == SHORT) && e.hasValue && e.count >= 1)
        parts->altitudeRef = UnsignedAt(s, e, 0);
      break;
    case 6: if (IsRational(e)) g->altitude = RationalAt(s, e, 0); break;
    case 11: if (IsRational(e)) g->dop = RationalAt(s, e, 0); break;
    default: break;
  }
}

double SignedDegrees(const QExif::GeoCoordinate& c) {
  double v = c.degrees + c.minutes / 60.0 + c.seconds / 3600.0;
  return (c.direction == 'S' || c.direction == 'W') ? -v : v;
}

void FinishGps(const GpsParts& parts, QExif::GeoLocation* g) {
  if (parts.hasLat) g->latitude = SignedDegrees(g->latComponents);
  if (parts.hasLon) g->longitude = SignedDegrees(g->lonComponents);
  g->hasPosition = parts.hasLat && parts.hasLon;
  // Reference 1 means below sea level.
  if (parts.altitudeRef == 1 && g->altitude > 0) g->altitude = -g->altitude;
}

template <typename Take>
void ForEachEntry(const Segment& s, size_t ifd, Take take) {
  uint16_t n = s.U16(ifd);
  for (uint16_t k = 0; k < n; ++k) take(DecodeEntry(s, ifd + 2 + static_cast<size_t>(k) * 12));
}

// Reads the TIFF header at `s->base` (its byte order into `s->little`) and finds IFD0; the
// caller has checked that the header's 8 bytes lie in the segment.
int32_t OpenTiff(Segment* s, size_t* ifd0) {
  const uint8_t* h = s->data + s->base;
  if (h[0] == 'I' && h[1] == 'I') {
    s->little = true;
  } else if (h[0] == 'M' && h[1] == 'M') {
    s->little = false;
  } else {
    return QExif::BAD_BYTE_ORDER;
  }
  if (s->U16(s->base + 2) != 42) return QExif::CORRUPT;
  *ifd0 = CheckIfd(*s, static_cast<uint64_t>(s->U32(s->base + 4)) + s->base);
  return *ifd0 ? QExif::OK : QExif::CORRUPT;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// QExif
// ---------------------------------------------------------------------------------------------

void QExif::Clear() { *this = QExif(); }

int32_t QExif::ReadFromJpeg(const qstring& data) {
  return ReadFromJpeg(reinterpret_cast<const uint8_t*>(data.cstr()),
                      static_cast<size_t>(data.Length()));
}

int32_t QExif::ReadFromJpeg(const uint8_t* bytes, size_t length) {
  if (!bytes || length < 4 || bytes[0] != 0xFF || bytes[1] != 0xD8) return NOT_JPEG;

  // Writers pad files with zero or 0xFF bytes after the end marker; look past them.
  size_t end = length;
  while (end > 2) {
    uint8_t b = bytes[end - 1];
    if (b == 0 || b == 0xFF) {
      --end;
      continue;
    }
    if (b != 0xD9 || bytes[end - 2] != 0xFF) return NOT_JPEG;
    break;
  }

  Clear();

  // The markers are searched byte by byte; segment lengths are not followed.
  size_t i = 0;
  while (i + 1 < end && !(bytes[i] == 0xFF && bytes[i + 1] == 0xE1)) ++i;
  int32_t result = NO_EXIF;
  if (i + 4 <= end) {
    size_t segment = static_cast<size_t>(bytes[i + 2]) << 8 | bytes[i + 3];
    result = i + 2 + segment > end || segment < 16
                 ? CORRUPT
                 : ReadExifSegment(bytes + i + 4, end - (i + 4));
  }
  // After the EXIF block, whose parse starts from a cleared record.
  TakeComment(bytes, end, &comment);
  return result;
}

int32_t QExif::ReadExifSegment(const uint8_t* data, size_t length) {
  Clear();
  if (!data || length < 6) return NO_EXIF;
  if (memcmp(data, "Exif\0\0", 6) != 0) return NO_EXIF;
  if (length < 14) return CORRUPT;

  Segment s{data, length, false, kTiffStart};
  size_t ifd0 = 0;
  const int32_t opened = OpenTiff(&s, &ifd0);
  if (opened == BAD_BYTE_ORDER) return opened;
  littleEndian = s.little ? 1 : 0;
  if (opened != OK) return opened;
  Links links;
  ForEachEntry(s, ifd0, [&](const Entry& e) { TakeMainEntry(s, e, this, &links); });

  // Each pointer is followed wherever it leads, IFD0 included; nothing is followed from the
  // sub-directories, so no directory is read more than three times.
  if (links.exifIfd) {
    size_t exifIfd = CheckIfd(s, links.exifIfd);
    if (!exifIfd) return CORRUPT;
    ForEachEntry(s, exifIfd, [&](const Entry& e) { TakeCameraEntry(s, e, this); });
  }

  if (links.gpsIfd) {
    size_t gps = CheckIfd(s, links.gpsIfd);
    if (!gps) return CORRUPT;
    GpsParts parts;
    ForEachEntry(s, gps, [&](const Entry& e) { TakeGpsEntry(s, e, &geoLocation, &parts); });
    FinishGps(parts, &geoLocation);
  }
  return OK;
}

int32_t QExif::ReadTaken(const uint8_t* tiff, size_t length, Taken* taken) {
  *taken = Taken();
  if (!tiff || length < 8) return CORRUPT;
  Segment s{tiff, length, false, 0};
  size_t ifd0 = 0;
  const int32_t opened = OpenTiff(&s, &ifd0);
  if (opened != OK) return opened;
  uint64_t exifIfd = 0;
  ForEachEntry(s, ifd0, [&](const Entry& e) {
    if (e.tag == 274 && IsShort(e)) taken->orientation = static_cast<uint16_t>(UnsignedAt(s, e, 0));
    if (e.tag == 34665 && IsUnsigned(e)) exifIfd = UnsignedAt(s, e, 0);
  });
  if (!exifIfd) return OK;
  const size_t camera = CheckIfd(s, exifIfd);
  if (!camera) return CORRUPT;
  ForEachEntry(s, camera, [&](const Entry& e) {
    if (e.tag != 36867 || !IsText(e)) return;
    // As a text field: up to the first zero. A longer text is no date this reader knows.
    const char* p = reinterpret_cast<const char*>(s.data + e.valueAt);
    size_t n = 0;
    while (n < e.count && p[n]) ++n;
    if (n >= kDateBytes) return;
    memcpy(taken->dateTimeOriginal, p, n);
    taken->dateTimeOriginal[n] = 0;
  });
  return OK;
}

void QExif::WriteOrientationSegment(uint16_t orientation, uint8_t* out) {
  const uint8_t segment[ORIENTATION_SEGMENT_SIZE] = {
      0xFF, 0xE1, 0, ORIENTATION_SEGMENT_SIZE - 2,  // APP1; the length counts itself
      'E', 'x', 'i', 'f', 0, 0,                      // header
      'M', 'M', 0, 42, 0, 0, 0, 8,                   // TIFF, IFD0 at 8
      0, 1,                                          // one entry
      0x01, 0x12, 0, 3, 0, 0, 0, 1,                  // 274, SHORT, 1
      uint8_t(orientation >> 8), uint8_t(orientation), 0, 0,
      0, 0, 0, 0};                                   // no IFD1
  memcpy(out, segment, sizeof(segment));
}
