// QFullScreenSettings: reading the settings group.
#include "framework/fullscreensettings.h"

#include "framework/qini.h"
#include "framework/qmessage.h"
#include "framework/qstring.h"

bool QFullScreenSettings::Load(QIni* ini, const char* group) {
  if (!ini || !group) return false;
  qstring key;
  auto K = [&](const char* name) -> const char* {
    key.Format("%s.%s", group, name);
    return key.cstr();
  };
  flags = 0;
  if (ini->GetBool(K("near_fullscreen"), false)) flags |= NEAR_FULLSCREEN;
  if (ini->GetBool(K("no_border"), false)) flags |= NO_BORDER;
  if (ini->GetBool(K("stereo.quad_buffered"), false)) flags |= QUAD_BUFFERED;
  x = ini->GetInt(K("x"), 0);
  y = ini->GetInt(K("y"), 0);
  width = ini->GetInt(K("width"), 640);
  height = ini->GetInt(K("height"), 480);
  bits = ini->GetInt(K("bits"), 32);
  stencilBits = ini->GetInt(K("stencil_bits"), 8);
  alphaBits = ini->GetInt(K("alpha_bits"), 0);
  depthBits = ini->GetInt(K("z_bits"), 0);
  if (depthBits > 0)
    QWARN("QFullScreenSettings::Load",
          "%s=%d, but normally you don't need depthbuffer bits anymore; consider setting it to 0",
          key.cstr(), depthBits);
  refreshRate = ini->GetInt(K("frequency"), 60);
  gamma = float(ini->GetFloat(K("gamma"), 1.0));
  return true;
}
