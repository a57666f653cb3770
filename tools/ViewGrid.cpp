#include "ViewGrid.h"

namespace {

// Where part `index` of `parts` even parts of `length` starts.
int Edge(int index, int parts, int length) {
  return static_cast<int>(static_cast<long long>(length) * index / parts);
}

// The part of `parts` even parts of `length` that holds `at` (0 <= at < length),
// by the same edges as the tiles.
int PartAt(int at, int parts, int length) {
  int part = 0;
  while (at >= Edge(part + 1, parts, length)) ++part;
  return part;
}

}  // namespace

int GridSide(int count) {
  if (count < 1 || count > VIEW_GRID_MAX_TILES) return 0;
  int side = 1;
  while (side * side < count) ++side;
  return side;
}

ViewRect TileRect(int side, int index, int width, int height) {
  if (side < 1 || side > VIEW_GRID_MAX_SIDE || index < 0 || index >= side * side) return {};
  const int column = index % side, row = index / side;
  ViewRect r;
  r.x = Edge(column, side, width);
  r.y = Edge(row, side, height);
  r.w = Edge(column + 1, side, width) - r.x;
  r.h = Edge(row + 1, side, height) - r.y;
  return r;
}

ViewRect FitPicture(const ViewRect& tile, int pictureWidth, int pictureHeight) {
  if (pictureWidth <= 0 || pictureHeight <= 0 || tile.w <= 0 || tile.h <= 0) return tile;
  ViewRect r = tile;
  // Compare the shapes in integers: w / h against pictureWidth / pictureHeight.
  if (static_cast<long long>(tile.w) * pictureHeight > static_cast<long long>(tile.h) * pictureWidth)
    r.w = static_cast<int>(static_cast<long long>(tile.h) * pictureWidth / pictureHeight);
  else
    r.h = static_cast<int>(static_cast<long long>(tile.w) * pictureHeight / pictureWidth);
  r.x = tile.x + (tile.w - r.w) / 2;
  r.y = tile.y + (tile.h - r.h) / 2;
  return r;
}

int TileAt(int side, int count, int width, int height, int x, int y) {
  if (side < 1 || side > VIEW_GRID_MAX_SIDE || x < 0 || y < 0 || x >= width || y >= height)
    return -1;
  const int index = PartAt(y, side, height) * side + PartAt(x, side, width);
  return index < count ? index : -1;
}
