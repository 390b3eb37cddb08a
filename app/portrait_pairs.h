// Portrait pairs ("effects.portrait_pairs"): on a window wider than high, two consecutive
// portrait pictures of the catalogue share the screen side by side, each fitted to half the
// window's width or its full height, whichever is smaller (ScreenFit::half), the pair centred
// and the first on the left. The catalogue's position stands on the pair's first picture.
//
// A step moves by what is shown: Right from a pair goes to the picture after both, Left to the
// two pictures before when both are portrait, else to the one picture before, which is then
// shown alone (its partner would be the picture just left). A pair never runs over the
// catalogue's end: the last picture and the first are shown apart.
//
// The rules are pure: whether a picture is portrait is asked of the caller, which knows it from
// a decoded picture or the file's head.
#pragma once

#include <functional>

class Catalogue;

// Taller than wide once turned upright by its EXIF `orientation`; false for an unknown size.
bool IsPortrait(int width, int height, int orientation);

// Moves `catalogue`'s position by `steps` of what is shown (negative: back) from the picture it
// stands on, shown as a pair when `paired`; `portrait(i)` tells whether picture i is. Answers
// whether the picture it ends on may pair with its next (false after a step back that found no
// pair before). An empty catalogue is left at -1.
bool StepSlides(Catalogue* catalogue, int steps, bool paired,
                const std::function<bool(int)>& portrait);
