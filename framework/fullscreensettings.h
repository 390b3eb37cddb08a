// QFullScreenSettings: the window and display-mode settings of one configuration group (the
// application's "resolution" group): position, size, colour depth, the depth, stencil and alpha
// bits asked of the OpenGL pixel format, the refresh rate and gamma. A plain record with the
// defaults below until Load fills it; keys missing from the configuration keep their default.
#pragma once

#include <cstdint>

class QIni;

struct QFullScreenSettings {
  enum Flags : uint32_t {
    NEAR_FULLSCREEN = 1,  // ".near_fullscreen": a borderless window over the whole desktop
    NO_BORDER = 2,        // ".no_border"
    QUAD_BUFFERED = 4,    // ".stereo.quad_buffered"
  };

  uint32_t flags = 0;
  int x = 0;
  int y = 0;
  int width = 640;
  int height = 480;
  int bits = 32;
  int stencilBits = 8;
  int alphaBits = 0;
  int depthBits = 0;
  int refreshRate = 60;
  float gamma = 1.0f;

  // Reads "<group>.x" and its siblings; every key missing gets its default. A ".z_bits" above 0
  // is kept and warns "%s=%d, but normally you don't need depthbuffer bits anymore; consider
  // setting it to 0". A null configuration or group leaves the record as it is (false).
  bool Load(QIni* ini, const char* group);
};
