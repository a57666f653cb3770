#include "ViewWindow.h"

#include <algorithm>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "PngWriter.h"
#include "TileFont.h"
#include "ViewGrid.h"

namespace {

// The share of the screen a window too large for it is scaled down to.
constexpr double SCREEN_SHARE = 0.9;
// Captions: dots of 2 x 2 pixels in a tile at least this wide, else of 1.
constexpr int WIDE_TILE = 300;
constexpr int CAPTION_LINE_SPACING = 3;  // dots between the two lines
constexpr SDL_Color CAPTION_BACKGROUND = {0, 0, 0, 255};
constexpr SDL_Color CAPTION_COLOURS[2] = {{255, 255, 255, 255}, {255, 220, 0, 255}};

// The window's size for a picture of `width` x `height`: the picture's own,
// or scaled down, keeping its shape, to fit the screen's usable area with a
// margin for the window's frame and title.
void FitToScreen(int32_t width, int32_t height, int* windowWidth, int* windowHeight) {
  *windowWidth = width;
  *windowHeight = height;
  SDL_Rect usable;
  if (SDL_GetDisplayUsableBounds(0, &usable) != 0 || usable.w <= 0 || usable.h <= 0) return;
  const double scale = std::min({1.0, usable.w * SCREEN_SHARE / width, usable.h * SCREEN_SHARE / height});
  *windowWidth = std::max(1, static_cast<int>(width * scale));
  *windowHeight = std::max(1, static_cast<int>(height * scale));
}

SDL_Rect ToSdl(const ViewRect& r) { return SDL_Rect{r.x, r.y, r.w, r.h}; }

void SetColour(SDL_Renderer* renderer, const SDL_Color& c) {
  SDL_SetRenderDrawColor(renderer, c.r, c.g, c.b, c.a);
}

}  // namespace

ViewWindow::~ViewWindow() {
  for (Tile& tile : tiles_)
    if (tile.texture != nullptr) SDL_DestroyTexture(tile.texture);
  if (renderer_ != nullptr) SDL_DestroyRenderer(renderer_);
  if (window_ != nullptr) SDL_DestroyWindow(window_);
  SDL_Quit();
}

bool ViewWindow::Open(int tiles, int32_t pictureWidth, int32_t pictureHeight, std::string* error) {
  const int side = GridSide(tiles);
  int windowWidth = 0, windowHeight = 0;
  FitToScreen(pictureWidth * side, pictureHeight * side, &windowWidth, &windowHeight);
  tiles_.resize(static_cast<size_t>(tiles));
  window_ = SDL_CreateWindow("tqfplay", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, windowWidth,
                             windowHeight, SDL_WINDOW_RESIZABLE);
  if (window_ != nullptr) renderer_ = SDL_CreateRenderer(window_, -1, 0);
  // A lone picture keeps its own size as the renderer's logical size, which
  // SDL scales to the window.
  if (renderer_ != nullptr && tiles == 1 &&
      SDL_RenderSetLogicalSize(renderer_, pictureWidth, pictureHeight) != 0) {
    SDL_DestroyRenderer(renderer_);
    renderer_ = nullptr;
  }
  if (renderer_ == nullptr) {
    *error = std::string("cannot open a window: ") + SDL_GetError();
    return false;
  }
  return true;
}

void ViewWindow::SetTitle(const std::string& title) {
  if (title == title_) return;
  title_ = title;
  SDL_SetWindowTitle(window_, title_.c_str());
}

bool ViewWindow::Upload(ViewSource& source, Tile& tile, std::string* error) {
  bool made = true;
  const bool taken = source.Slot().TakeFresh([&](const uint8_t* pixels, int32_t width, int32_t height) {
    if (tile.texture == nullptr || tile.width != width || tile.height != height) {
      if (tile.texture != nullptr) SDL_DestroyTexture(tile.texture);
      tile.texture = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING,
                                       width, height);
      tile.width = width;
      tile.height = height;
    }
    made = tile.texture != nullptr && SDL_UpdateTexture(tile.texture, nullptr, pixels, width) == 0;
  });
  if (!made) *error = std::string("cannot show a picture of ") + source.Path() + ": " + SDL_GetError();
  dirty_ = dirty_ || taken;
  return made;
}

bool ViewWindow::Refresh(const std::vector<std::unique_ptr<ViewSource>>& sources, int enlarged,
                         std::string* error) {
  for (size_t i = 0; i < tiles_.size(); ++i) {
    ViewSource& source = *sources[i];
    if (!source.HoldsPicture() && !Upload(source, tiles_[i], error)) return false;
    if (tiles_.size() == 1) continue;  // the title tells a lone source's status
    const std::string caption[2] = {source.Name(), source.Status()};
    for (int line = 0; line < 2; ++line) {
      if (tiles_[i].caption[line] == caption[line]) continue;
      tiles_[i].caption[line] = caption[line];
      dirty_ = true;
    }
  }
  if (enlarged != enlarged_) {
    enlarged_ = enlarged;
    dirty_ = true;
  }
  if (dirty_) {
    Draw();
    SDL_RenderPresent(renderer_);
    dirty_ = false;
  }
  return true;
}

void ViewWindow::Draw() {
  SetColour(renderer_, CAPTION_BACKGROUND);
  SDL_RenderClear(renderer_);
  if (tiles_.size() == 1) {
    SDL_RenderCopy(renderer_, tiles_[0].texture, nullptr, nullptr);
    return;
  }
  int width = 0, height = 0;
  SDL_GetRendererOutputSize(renderer_, &width, &height);
  if (enlarged_ >= 0) {
    DrawTile(tiles_[static_cast<size_t>(enlarged_)], ViewRect{0, 0, width, height});
    return;
  }
  const int side = GridSide(static_cast<int>(tiles_.size()));
  for (size_t i = 0; i < tiles_.size(); ++i)
    DrawTile(tiles_[i], TileRect(side, static_cast<int>(i), width, height));
}

void ViewWindow::DrawTile(const Tile& tile, const ViewRect& where) {
  if (tile.texture != nullptr) {
    const SDL_Rect picture = ToSdl(FitPicture(where, tile.width, tile.height));
    SDL_RenderCopy(renderer_, tile.texture, nullptr, &picture);
  }
  DrawCaption(tile, where);
}

// The name and the status at the tile's top left, on a dark box.
void ViewWindow::DrawCaption(const Tile& tile, const ViewRect& where) {
  const int scale = where.w >= WIDE_TILE ? 2 : 1;
  const int pad = 2 * scale;
  std::string lines[2];
  int boxWidth = 0;
  for (int line = 0; line < 2; ++line) {
    lines[line] = TextThatFits(tile.caption[line], where.w - 2 * pad, scale);
    boxWidth = std::max(boxWidth, TextWidth(lines[line], scale) + 2 * pad);
  }
  const int lineHeight = (TILE_FONT_HEIGHT + CAPTION_LINE_SPACING) * scale;
  const SDL_Rect box{where.x, where.y, boxWidth, 2 * lineHeight + pad};
  SetColour(renderer_, CAPTION_BACKGROUND);
  SDL_RenderFillRect(renderer_, &box);
  for (int line = 0; line < 2; ++line) {
    std::vector<ViewRect> dots;
    TextRects(lines[line], where.x + pad, where.y + pad + line * lineHeight, scale, &dots);
    std::vector<SDL_Rect> rects(dots.size());
    std::transform(dots.begin(), dots.end(), rects.begin(), ToSdl);
    SetColour(renderer_, CAPTION_COLOURS[line]);
    SDL_RenderFillRects(renderer_, rects.data(), static_cast<int>(rects.size()));
  }
}

int ViewWindow::TileAt(int x, int y) const {
  int width = 0, height = 0;
  SDL_GetWindowSize(window_, &width, &height);
  const int count = static_cast<int>(tiles_.size());
  return ::TileAt(GridSide(count), count, width, height, x, y);
}

bool ViewWindow::WriteSnapshot(const char* path, std::string* error) {
  int width = 0, height = 0;
  SDL_GetRendererOutputSize(renderer_, &width, &height);
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
  Draw();
  if (SDL_RenderReadPixels(renderer_, nullptr, SDL_PIXELFORMAT_RGB24, rgb.data(), width * 3) != 0) {
    *error = std::string("reading the window back: ") + SDL_GetError();
    return false;
  }
  const uint8_t* planes[4] = {rgb.data(), nullptr, nullptr, nullptr};
  const int strides[4] = {width * 3, 0, 0, 0};
  return WritePng(path, planes, strides, width, height, AV_PIX_FMT_RGB24, error);
}
