// Pixel filters: small objects that change a whole QBitMap in place by one integer amount.
//
// A filter refers to a QControl (not owned: the control must outlive the filter) and reads its
// current value each time Do runs, so an animated control makes an animated effect. Filters
// work on 32-bit RGBA pixels over width x height pixels, never past the bitmap's block; alpha is
// left alone except by the fade. A filter without a control uses the amount 0.
// The grey filter's tables are process-wide and built without a lock on first use: run the
// first QFilterGray::Do before any other thread may.
#pragma once

#include "framework/qcolor.h"
#include "framework/qobject.h"

class QBitMap;

// QControl: the framework's keyframed value, reduced to what the filters read: one current
// integer value.
class QControl {
 public:
  explicit QControl(int value = 0) : value_(value) {}
  int GetValue() const { return value_; }
  void SetValue(int value) { value_ = value; }

 private:
  int value_;
};

class QFilter : public QObject {
 public:
  explicit QFilter(QControl* amount = nullptr) : amount_(amount) {}
  const char* ClassName() const override { return "QFilter"; }
  ~QFilter() override = default;
  // Applies the filter to every pixel. On the base class: the error "QFilter::Do abstract call"
  // and nothing changes. A null or empty bitmap is left as it is.
  virtual void Do(QBitMap* bitmap);

  QControl* GetControl() const { return amount_; }
  void SetControl(QControl* amount) { amount_ = amount; }

 protected:
  int Amount() const { return amount_ ? amount_->GetValue() : 0; }

 private:
  QControl* amount_;
};

// Towards white (amount 1..100) or black (-1..-100); held to -100..100; 0 does nothing.
class QFilterBrightness : public QFilter {
 public:
  using QFilter::QFilter;
  const char* ClassName() const override { return "QFilterBrightness"; }
  void Do(QBitMap* bitmap) override;
  static void Apply(QBitMap* bitmap, int amount);
};

// Alpha towards transparent (1..100) or opaque (-1..-100); held to -100..100; 0 does nothing.
class QFilterFade : public QFilter {
 public:
  using QFilter::QFilter;
  const char* ClassName() const override { return "QFilterFade"; }
  void Do(QBitMap* bitmap) override;
  static void Apply(QBitMap* bitmap, int amount);
};

// Towards grey: 0 leaves the picture, 128 (and anything above) makes it fully grey.
class QFilterGray : public QFilter {
 public:
  using QFilter::QFilter;
  const char* ClassName() const override { return "QFilterGray"; }
  void Do(QBitMap* bitmap) override;
  static void Apply(QBitMap* bitmap, int amount);
};

// Replaces each pixel by the tint scaled by its luminance when the control is non-zero. Logs a
// line on every call.
class QFilterColorize : public QFilter {
 public:
  explicit QFilterColorize(QControl* enable = nullptr, QColor tint = QColor(255, 255, 255))
      : QFilter(enable), tint_(tint) {}
  const char* ClassName() const override { return "QFilterColorize"; }
  void Do(QBitMap* bitmap) override;
  static void Apply(QBitMap* bitmap, int enable, QColor tint);

  QColor GetTint() const { return tint_; }
  void SetTint(QColor tint) { tint_ = tint; }

 private:
  QColor tint_;
};
