// Portrait pairs: the stepping rule.
#include "app/portrait_pairs.h"

#include <cstdlib>

#include "app/catalogue.h"

bool IsPortrait(int width, int height, int orientation) {
  if (width <= 0 || height <= 0) return false;
  const bool turned = orientation == 6 || orientation == 8;
  return turned ? width > height : height > width;
}

bool StepSlides(Catalogue* catalogue, int steps, bool paired,
                const std::function<bool(int)>& portrait) {
  const auto pairsAt = [&](int i) {
    return i >= 0 && i + 1 < catalogue->Count() && portrait(i) && portrait(i + 1);
  };
  bool mayPair = true;
  for (int k = 0; k < std::abs(steps) && catalogue->Count() > 0; ++k) {
    if (steps > 0) {
      // After the first step the pictures passed are judged by their shapes.
      const bool pair = k == 0 ? paired : pairsAt(catalogue->Current());
      catalogue->Step(pair ? 2 : 1);
      mayPair = true;
    } else {
      const int before = catalogue->Step(-1);
      mayPair = before >= 1 && pairsAt(before - 1);
      if (mayPair) catalogue->Step(-1);
    }
  }
  if (catalogue->Count() == 0) catalogue->Step(steps);
  return mayPair;
}
