// QWindow: the framework's window base, a drawable with a position, a size, preferences and an
// event callback.
//
// A window is either real (it has a native window of its own: QXWindow and what derives from
// it) or soft (drawn inside the nearest real window up its parent chain). The preferences (full
// screen, no resize, managed by the desktop's window manager, real or soft) are fixed by Create:
// changing one afterwards is refused with an error and changes nothing. The parent is borrowed.
// Destroying a window cancels its queued events, so the main loop never sees a dangling window.
// Main thread only.
#pragma once

#include "framework/qdrawable.h"

struct QEvent;

class QWindow : public QDrawable {
 public:
  enum Pref : int {
    PREF_FULLSCREEN = 1,
    PREF_NORESIZE = 2,
    PREF_WM = 4,    // managed (decorated, moved) by the desktop's window manager
    PREF_SOFT = 8,  // drawn inside the parent's real window
    PREF_OPTION = 16,  // the application's on/off option (flag 128): vertical sync
  };
  // Answers true when it consumed the event.
  typedef bool (*EventCallback)(QWindow* win, QEvent* e, void* user);

  explicit QWindow(QWindow* parent = nullptr, const char* name = nullptr, int x = 0, int y = 0,
                   int wid = 0, int hgt = 0);
  ~QWindow() override;
  const char* ClassName() const override { return "QWindow"; }

  // ---- Preferences: each refuses with "QWindow:<name>() called after window was created" ----
  void PrefFullScreen(bool on = true);
  void PrefNoResize(bool on = true);
  void PrefWM(bool on = true);
  void PrefOption(bool on = true);
  void MakeRealX();
  void MakeSoftWindow();
  int GetPrefs() const { return prefs_; }
  bool IsFullScreen() const { return (prefs_ & PREF_FULLSCREEN) != 0; }
  bool IsRealX() const { return (prefs_ & PREF_SOFT) == 0; }

  // A soft window needs a created real window up its parent chain; without one, error
  // "QWindow::Create() without a parent real X window" and false.
  virtual bool Create();
  bool IsCreated() const { return created_; }
  // False with "Can't hide X QWindow" when the native window refuses.
  virtual bool Hide();
  virtual bool Show();
  bool IsVisible() const { return visible_; }
  // Records the position (and moves the native window, for real ones).
  virtual void Move(int x, int y);
  // Sets the size; OnResize follows.
  virtual void Size(int wid, int hgt);
  // The window now has this client size (from Size or from the platform). Never fails.
  virtual void OnResize(int wid, int hgt);

  int GetX() const { return x_; }
  int GetY() const { return y_; }
  int GetWidth() const override { return wid_; }
  int GetHeight() const override { return hgt_; }
  QWindow* GetParent() const { return parent_; }
  // This window when real, else the nearest real one up the parent chain; null when none.
  QWindow* GetRealWindow();

  // The callback sees the events addressed to this window; `user` is handed back to it.
  void SetEventCallback(EventCallback cb, void* user = nullptr);
  // Offers the event to the callback; false when there is none or it did not consume it.
  virtual bool ProcessEvent(QEvent* e);
  // Motion events of a compressing window coalesce in the event ring (off by default).
  bool CompressesMotion() const { return compressMotion_; }
  void SetCompressMotion(bool on) { compressMotion_ = on; }

  // Draws a GL texture of `texGrid.wid` x `texGrid.hgt` texels unscaled with its top-left corner
  // at window pixel (x, y), y from the top. Errors: "QWindow:PaintTexture(); no texture" for
  // texture name 0, "QWindow:PaintTexture(); texGrid.wid=0" for an empty grid; false then, and
  // false when the window's context cannot be made current.
  bool PaintTexture(unsigned int glTexture, const QRect& texGrid, int x, int y);
  // The same, stretched over `dst` (window pixels, y from the top).
  bool PaintTextureStretched(unsigned int glTexture, const QRect& texGrid, const QRect& dst);

 protected:
  // Reports the refusal when created; true when a preference may still change.
  bool MayChangePrefs(const char* what) const;
  void SetPref(int bit, bool on);

  QWindow* parent_ = nullptr;
  int x_ = 0;
  int y_ = 0;
  int wid_ = 0;
  int hgt_ = 0;
  int prefs_ = 0;
  bool created_ = false;
  bool visible_ = true;
  bool compressMotion_ = false;
  EventCallback callback_ = nullptr;
  void* callbackUser_ = nullptr;
};
