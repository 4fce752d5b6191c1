#include "video/standby_picture.h"

#include <cairo.h>
#include <pango/pangocairo.h>

namespace qvn {

PixelBufferRef makeStandbyPicture(int width, int height) {
  auto picture = PixelBuffer::make(PixelFormat::bgra, width, height);
  if (!picture) return nullptr;
  cairo_surface_t* surface = cairo_image_surface_create_for_data(
      picture->data(), CAIRO_FORMAT_ARGB32, width, height, picture->stride());
  cairo_t* cr = cairo_create(surface);
  cairo_set_source_rgb(cr, kMixBackground.r, kMixBackground.g, kMixBackground.b);
  cairo_paint(cr);

  PangoLayout* layout = pango_cairo_create_layout(cr);
  PangoFontDescription* font = pango_font_description_from_string("Sans Semi-Bold");
  pango_font_description_set_absolute_size(font, 56 * PANGO_SCALE);
  pango_layout_set_font_description(layout, font);
  pango_layout_set_text(layout, "Program", -1);
  int textW = 0, textH = 0;
  pango_layout_get_pixel_size(layout, &textW, &textH);
  cairo_set_source_rgba(cr, 0, 0.784, 0.588, 1);
  cairo_move_to(cr, (width - textW) / 2.0, (height - textH) / 2.0);
  pango_cairo_show_layout(cr, layout);

  pango_font_description_free(font);
  g_object_unref(layout);
  cairo_destroy(cr);
  cairo_surface_flush(surface);
  cairo_surface_destroy(surface);
  return picture;
}

}  // namespace qvn
