// ViewGrid: where the viewer's tiles go in its window. Pure arithmetic on
// rectangles, no display: the side of the grid for a count of sources, each
// tile's rectangle, a picture fitted into a tile with its shape kept, and
// which tile a point falls in. Any thread.
#pragma once

// A rectangle in window pixels; SDL_Rect has the same fields in this order.
struct ViewRect {
  int x = 0;
  int y = 0;
  int w = 0;
  int h = 0;
};

constexpr int VIEW_GRID_MAX_SIDE = 4;
constexpr int VIEW_GRID_MAX_TILES = VIEW_GRID_MAX_SIDE * VIEW_GRID_MAX_SIDE;

// Tiles per row (and rows) of the smallest square grid that holds `count`
// tiles: 1 for 1, 2 for 2 to 4, 3 for 5 to 9, 4 for 10 to 16; 0 for a count
// outside 1..16.
int GridSide(int count);

// Tile `index` (row by row) of a `side` x `side` grid over a window of
// `width` x `height`. The tiles share the window's pixels with none left
// over: a row or column that cannot be split evenly gets the spare pixels
// at the right or bottom. An empty rectangle for an index or side out of range.
ViewRect TileRect(int side, int index, int width, int height);

// The largest rectangle of `pictureWidth` x `pictureHeight`'s shape inside
// `tile`, centred; the tile itself for a picture of no size.
ViewRect FitPicture(const ViewRect& tile, int pictureWidth, int pictureHeight);

// The tile of a `side` x `side` grid over `width` x `height` that holds the
// point (x, y), counted row by row; -1 outside the window or past `count`
// tiles.
int TileAt(int side, int count, int width, int height, int x, int y);
