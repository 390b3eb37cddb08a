// PictureLoader: turns a picture file into what the screen needs, without OpenGL, so that it
// can run on a worker thread: the file read once into memory, its EXIF orientation parsed from
// those bytes, the pixels decoded at screen size (JPEG through the library's DCT scaling, then
// an area reduction to the size the quad is drawn at; WebP scaled by its library straight to
// that size) and made grey when asked. A TIFF's Orientation tag and a WebP's EXIF orientation
// take the place of the JPEG's; HEIF comes out of its library upright (orientation 0). The pixels stay
// unturned, in memory order; the quad turns them by its texture coordinates.
//
// The quad's size follows the picture's own width and height: it fills the window's height and
// is w = f / (desktop width / desktop height) x window width wide, f being the picture's
// proportions (turned for orientations 6 and 8); one of a portrait pair is shrunk, proportions
// kept, to half the window's width when it is wider. What is decoded never exceeds the largest
// texture, and a picture that fits no texture is reduced until it does.
//
// A failed load is returned, not logged as "Can't load image": the caller says that when the
// picture is asked for (the readers' own warnings are logged as they happen). A load given up
// for a stop request (QBitMap::RequestStop) is failed with `stopped` set: the program is ending,
// and nothing is wrong with the picture. PNG and JPEG rows are reduced as they are decoded, so
// a picture's memory is what QImage::MAX_DECODE_BYTES allows, the file included.
//
// A fit that asks for a background gives a picture that leaves part of the window free a small,
// strongly blurred copy of itself as it would cover the whole window (a 16th of that size each
// way, in stored directions like the pixels), made from the reduced pixels after the colour and
// grey steps, so that it costs no decode of its own and is grey with the picture. A picture
// whose quad covers the window gets none.
//
// An animated GIF or WebP comes with its animation, which holds the file's bytes and one canvas:
// `pixels` is its first frame at the quad's size, and the later ones are asked of it at the same
// size.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "framework/image/qanimation.h"
#include "framework/qbitmap.h"

// Where and how big pictures are shown.
struct ScreenFit {
  int windowWidth = 0;
  int windowHeight = 0;
  double desktopAspect = 0;  // width / height of the desktop; 0: the window's own
  int maxTexture = 0;        // largest texture side; 0: no limit
  bool background = false;   // a blurred copy fills the sides the picture leaves free
  bool half = false;         // one of a portrait pair: no wider than half the window either
  // The most a picture is enlarged inside its quad (pan and zoom): decoded to cover its quad
  // this many times over.
  double zoom = 1.0;
};

// The file a picture came from, to tell whether it has changed since.
struct FileStamp {
  int64_t size = -1;
  int64_t modified = 0;  // nanoseconds
  bool operator==(const FileStamp& o) const { return size == o.size && modified == o.modified; }
};

struct LoadedPicture {
  std::string path;
  bool ok = false;
  bool stopped = false;             // given up for a stop request (ok is false)
  std::unique_ptr<QBitMap> pixels;  // reduced, unturned, memory order
  int width = 0, height = 0;        // the picture's own size, unturned
  int orientation = 0;              // EXIF value, 0 when absent
  int exifCode = 0;                 // the EXIF reader's result code
  std::string taken, title;         // EXIF date taken and the title, for the caption; "" if none
  bool grey = false;                // made black and white
  ScreenFit fit;                    // what it was made for
  FileStamp stamp;
  std::unique_ptr<QBitMap> background;    // small, blurred, unturned; null: black sides
  std::unique_ptr<QAnimation> animation;  // null for a still picture
  int frameDelayMs = 0;                   // how long the first frame of an animation shows
  // Milliseconds in each phase: reading, decoding, reducing, colour, grey, EXIF, background.
  double readMs = 0, decodeMs = 0, reduceMs = 0, colourMs = 0, greyMs = 0, exifMs = 0;
  double backgroundMs = 0;

  bool Turned() const { return orientation == 6 || orientation == 8; }
  // The quad's size on screen for this picture under `fit`, in whole pixels.
  void QuadSize(int* w, int* h) const;
};

// The file's size and modification time; size -1 when it cannot be examined.
FileStamp StampOf(const char* path);

// True when `pixW` x `pixH` pixels of `picture` (stored directions) are enough for its quad
// under `fit`: at least the quad's size, or all the picture has when that is less.
bool Covers(const LoadedPicture& picture, int pixW, int pixH, const ScreenFit& fit);
// Makes a loaded picture made for another screen `fit`'s own: shrunk to its new quad with the
// area filter when larger, its background made or dropped as the fit asks. False, leaving it as
// it was, when its pixels no longer cover the quad (it must be decoded again) or the reduction
// fails.
bool Refit(LoadedPicture* picture, const ScreenFit& fit);

// Loads `path` for `fit`, grey when asked. Never throws; `out->ok` tells. With `file`, the bytes
// are read from there (the same picture by another path) while messages still name `path`.
void LoadPicture(const std::string& path, const ScreenFit& fit, bool grey, LoadedPicture* out,
                 const std::string* file = nullptr);
