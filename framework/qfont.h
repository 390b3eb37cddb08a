// QFont: the font text is measured and drawn with, of one of two kinds chosen at construction.
//
// A texture font (size 0) is a DTexFont read from "<name>.dtf" and "<name>.tga" (d3/dtexfont.h);
// the window canvas draws through it. A system font (size not 0) is a face of the system at a
// pixel height, compiled into one OpenGL display list per character code (qfont_uc.h); the font
// type picks which codes get lists: 0 codes 0-255, 1 Arabic, 2 full 16-bit range, 3 euro sign.
//
// Lifecycle: construct, configure (type, resolution), then Create once with the application's
// OpenGL context current. Resolution X and Y are stored only, and refused after a successful
// Create. Creating again replaces the texture font, with an error. Measuring before Create
// answers 0. Scale is a texture-font setting: on a system font the calls only warn.
//
// Ownership: the QFont owns its name, its DTexFont, its reference to the system face and its
// display lists. Main thread only.
#pragma once

#include <cstdint>
#include <memory>

#include "framework/qfont_uc.h"
#include "framework/qobject.h"

class DTexFont;

class QFont : public QObject {
 public:
  enum Flags : uint32_t { HAS_UNICODE = 1 };  // the texture font holds codes above 255
  enum Type : int { TYPE_DEFAULT = 0, TYPE_ARABIC = 1, TYPE_FULL = 2, TYPE_EURO = 3 };

  // Texture font "<name>.dtf"/"<name>.tga": size 0, style 1, weight index 0, extra 0.
  explicit QFont(const char* name);
  // A system font when `size` is not 0 (face name and pixel height).
  QFont(const char* name, int size, int style = 1, int weightIndex = 0, int extra = 0);
  ~QFont() override;
  const char* ClassName() const override { return "QFont"; }

  // Builds the font. Texture font: false, with "Couldn't load texture of tex font '%s'", when
  // the description or the sheet does not load. System font: true even when the face cannot be
  // opened (warned; it then measures 0 and draws nothing) or the type is unknown (error).
  bool Create();
  bool IsCreated() const { return created_ != 0; }

  // Refused after Create with "QFont::SetResX(); can't modify after Create()" (Y likewise).
  void SetResX(int r);
  void SetResY(int r);
  int GetResX() const { return resX_; }
  int GetResY() const { return resY_; }

  // Font type setters: true selects the type, false goes back to 0.
  void SetArabic(bool on) { fontType_ = on ? TYPE_ARABIC : TYPE_DEFAULT; }
  void SetFullUnicode(bool on) { fontType_ = on ? TYPE_FULL : TYPE_DEFAULT; }
  void SetEuro(bool on) { fontType_ = on ? TYPE_EURO : TYPE_DEFAULT; }
  void SetFontType(int type) { fontType_ = type; }
  int GetFontType() const { return fontType_; }

  // Forwarded to the texture font; a system font warns ("QFont:SetScale(); only useful for
  // texture fonts" and the getters' likewise) and the getters answer 1.0.
  void SetScale(float x, float y);
  float GetScaleX();
  float GetScaleY();

  // ---- Measuring (pixels) ----
  // One character. Texture font: taken as a signed byte (codes 128-255 measure 0). System font:
  // A + B when A > 0, else C + B when C > 0, else B, from the A, B, C widths.
  float GetWidth(char c);
  // 8-bit text of `len` bytes (-1: to the terminating zero); 0 for an empty text or a length
  // below 1. A texture font reads it as UTF-8 and measures what it draws. A system font reads
  // the bytes unsigned and adds the last character's width once more when that is negative.
  float GetWidth(const char* text, int len = -1);
  // The same over 16-bit codes.
  float GetWidth(const uint16_t* text, int len = -1);
  // 8-bit or 16-bit by the string's kind.
  float GetWidth(const qstring& text);
  // Texture font: the DTexFont's height (ascent is the same, descent 0). System font: metrics.
  int GetHeight() const;
  int GetAscent() const;
  int GetDescent() const;

  // The texture font the canvas draws with; null for a system font or before Create.
  DTexFont* GetTexFont() const { return texFont_.get(); }
  // First display list of a system font (list of code c: base + c for type 0); 0 when none.
  uint32_t GetListBase() const { return listBase_; }
  int GetSize() const { return size_; }
  int GetStyle() const { return style_; }
  int GetWeightIndex() const { return weightIndex_; }
  int GetExtra() const { return extra_; }
  uint32_t GetFlags() const { return flags_; }
  const QFontMetrics& GetMetrics() const { return metrics_; }

  // GDI weight of a weight index: 0 -> 0, 1 -> 500, 2 -> 700, 3 and 4 -> 400; others 0.
  static int WeightFromIndex(int index);

 private:
  struct TexFontDeleter {
    void operator()(DTexFont* f) const;
  };
  bool IsTextureFont() const { return size_ == 0; }
  float SystemCharWidth(uint32_t code);
  void ReleaseSystem();

  uint32_t flags_ = 0;
  int created_ = 0;
  std::unique_ptr<DTexFont, TexFontDeleter> texFont_;
  QFontFace* face_ = nullptr;  // one reference
  QFontMetrics metrics_;
  int size_ = 0;
  int style_ = 1;
  int weightIndex_ = 0;
  int extra_ = 0;
  int resX_ = 100;
  int resY_ = 100;
  uint32_t listBase_ = 0;
  int listCount_ = 0;
  int fontType_ = TYPE_DEFAULT;
};

// Exists for old callers; construction only reports "QFontList ctor nyi on Win32/MacCarbon".
class QFontList : public QObject {
 public:
  QFontList();
  const char* ClassName() const override { return "QFontList"; }
};

// Each character of `text` as four lower-case hex digits, then a zero, into `dst` of `size`
// bytes. When the text has size / 4 characters or more, warns "QFontASCII2QC(%s); destination
// (d) isn't big enough" and converts size / 4 - 1 of them. Answers the characters converted.
int QFontASCII2QC(const char* text, char* dst, int size);
// Groups of four hex digits of `hex` into 16-bit codes, then a zero, into `dst` of `size` bytes:
// length / 4 codes, or size / 2 - 1 when length / 4 is not below size / 2. A group with a
// non-hex character keeps the value of its digits before it. Answers the codes converted.
int QFontQC2Unicode(const char* hex, uint16_t* dst, int size);

// ---- The application's system fonts, made by QApp::Create ----
enum QSystemFont : int { QFONT_COURIER = 0, QFONT_MS_SANS_SERIF = 1 };
// Creates "courier" and "ms sans serif" (13 pixels) once; false when either fails to create.
bool QFontCreateSystemFonts();
// One of them, or null before QFontCreateSystemFonts.
QFont* QGetSystemFont(int which);
// Deletes them and the builders' shared face (with the context current, their lists too).
void QFontReleaseSystemFonts();
