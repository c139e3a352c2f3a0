#include "gstzqavsstitch.h"

#ifndef PACKAGE
#define PACKAGE "zqgfx_avs"
#endif

static gboolean plugin_init(GstPlugin* plugin)
{
    return gst_zqavs_stitch_register(plugin);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, zqavs, "GPU panorama stitching of camera frames",
                  plugin_init, ZQAVS_VERSION, "Proprietary", "libzqgfx_avs", "libzqgfx_avs")
