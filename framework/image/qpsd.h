// QPSD: the layers of a Photoshop file (8 bits per channel, RGB mode) and their composite.
//
// Load reads the header, every layer record and every layer's channel pixels; the merged image
// at the end of the file is not read. Render composites the visible layers in file order over
// opaque white into a bitmap of the file's size. The arithmetic divides by 256, not 255, and a
// layer's transparency weight carries over from pixel to pixel within the layer; both are kept
// on purpose. Layers reaching past the right edge wrap into the next row up, as they always
// have, but nothing is ever written outside the bitmap's block.
//
// The object owns its layer table and channel buffers (counted allocator) and frees them on
// destruction or on the next Load. Not copyable.
#pragma once

#include <cstdint>

class QBitMap;
class QFile;

class QPSD {
 public:
  // One channel of a layer: id 0 red, 1 green, 2 blue, -1 transparency (others are kept but
  // not composited). `data` holds (bottom - top) x (right - left) bytes, or is null when that
  // area is empty.
  struct Channel {
    int id;
    uint8_t* data;
  };
  struct Layer {
    int top, left, bottom, right;
    int numChannels;
    Channel* channels;
    bool visible;
    char blendKey[5];
  };

  QPSD() = default;
  ~QPSD();
  QPSD(const QPSD&) = delete;
  QPSD& operator=(const QPSD&) = delete;

  // Reads the file from its start. False, with the reason logged, for a file that is not an
  // 8-bit RGB PSD of version 1, a layer mask record other than 0 or 20 bytes, an unknown channel
  // compression, or data that ends early; the layers read so far are then dropped.
  bool Load(QFile* file);
  // Composites into `bm`, which should be GetColumns() x GetRows() at 32 bits. Nothing happens
  // for an empty bitmap.
  void Render(QBitMap* bm) const;

  int GetRows() const { return rows_; }
  int GetColumns() const { return columns_; }
  int GetLayerCount() const { return numLayers_; }
  const Layer* GetLayer(int i) const { return i >= 0 && i < numLayers_ ? &layers_[i] : nullptr; }

 private:
  void Clear();
  bool ReadLayerRecord(QFile* f, Layer* layer);
  bool ReadChannelData(QFile* f, Layer* layer, int layerIndex);

  int rows_ = 0;
  int columns_ = 0;
  int numLayers_ = 0;
  Layer* layers_ = nullptr;
};
