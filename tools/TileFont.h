// TileFont: a tiny built-in 5 x 7 dot font for the viewer's tile captions,
// drawn as filled rectangles, so that text on screen needs no font file and
// looks the same everywhere. It knows digits, letters (lower case is shown
// as upper case) and the signs . : / - _ ( ) [ ] % ? , = +; any other
// character shows as '?'. Any thread.
#pragma once

#include <string>
#include <vector>

#include "ViewGrid.h"

constexpr int TILE_FONT_WIDTH = 5;
constexpr int TILE_FONT_HEIGHT = 7;
constexpr int TILE_FONT_ADVANCE = TILE_FONT_WIDTH + 1;  // a dot of space between characters

// The width in pixels of `text` (not null) drawn at `scale` (dots of scale x scale pixels).
int TextWidth(const std::string& text, int scale);

// `text` itself if it fits in `width` pixels at `scale`; else its end after
// "..", cut to fit (a name's end tells most: the file, the channel); "" if
// not even that fits.
std::string TextThatFits(const std::string& text, int width, int scale);

// Appends to `rects` the rectangles that draw `text` with its top left
// corner at (x, y): each run of dots in a row of a character is one rectangle.
void TextRects(const std::string& text, int x, int y, int scale, std::vector<ViewRect>* rects);
