// ViewWindow: the SDL2 window of `tqfplay view` and what it draws.
//
// One source fills the window with its picture alone, at the picture's own
// size (scaled down to fit the screen), as a plain player window; its title
// tells the rest. Several sources share it in a grid (ViewGrid), one texture
// per tile, each picture scaled by the renderer into its tile with its shape
// kept, under a caption of the source's name and status (TileFont). A tile
// may be shown enlarged, alone in the window, caption and all.
//
// The window's thread only; it must have initialised SDL's video.
#pragma once

#include <SDL2/SDL.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ViewGrid.h"
#include "ViewSource.h"

class ViewWindow {
 public:
  ViewWindow() = default;
  ~ViewWindow();
  ViewWindow(const ViewWindow&) = delete;
  ViewWindow& operator=(const ViewWindow&) = delete;

  // Opens the window for `tiles` sources (1 to 16) whose pictures are about
  // `pictureWidth` x `pictureHeight`. False with SDL's message.
  bool Open(int tiles, int32_t pictureWidth, int32_t pictureHeight, std::string* error);
  // Sets the window's title when it changed.
  void SetTitle(const std::string& title);
  // Takes the new pictures of the sources that show them, refreshes the
  // captions and draws when anything changed. `enlarged` is the tile shown
  // alone, or -1 for the grid. False with SDL's message when a tile's
  // texture cannot be made.
  bool Refresh(const std::vector<std::unique_ptr<ViewSource>>& sources, int enlarged,
               std::string* error);
  // Draws again at the next Refresh (the window was resized or uncovered).
  void Invalidate() { dirty_ = true; }
  // The grid's tile at window point (x, y); -1 for none.
  int TileAt(int x, int y) const;
  // Writes what the window shows as a PNG at `path`. False with the reason.
  bool WriteSnapshot(const char* path, std::string* error);

 private:
  struct Tile {
    SDL_Texture* texture = nullptr;
    int width = 0;
    int height = 0;
    std::string caption[2];  // the source's name, its status
  };

  // Takes `source`'s new picture into `tile`'s texture; false on a failure.
  bool Upload(ViewSource& source, Tile& tile, std::string* error);
  void Draw();
  void DrawTile(const Tile& tile, const ViewRect& where);
  void DrawCaption(const Tile& tile, const ViewRect& where);

  SDL_Window* window_ = nullptr;
  SDL_Renderer* renderer_ = nullptr;
  std::vector<Tile> tiles_;
  std::string title_;
  int enlarged_ = -1;
  bool dirty_ = true;
};
