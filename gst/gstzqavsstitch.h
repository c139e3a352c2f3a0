// zqavsstitch: one panorama from the NV12 frames of 1 to 10 cameras, on the stitching library.
#ifndef ZQAVS_GST_STITCH_H
#define ZQAVS_GST_STITCH_H

#include <gst/base/gstaggregator.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_ZQAVS_STITCH (gst_zqavs_stitch_get_type())
G_DECLARE_FINAL_TYPE(GstZqavsStitch, gst_zqavs_stitch, GST, ZQAVS_STITCH, GstAggregator)

#define GST_TYPE_ZQAVS_STITCH_PAD (gst_zqavs_stitch_pad_get_type())
G_DECLARE_FINAL_TYPE(GstZqavsStitchPad, gst_zqavs_stitch_pad, GST, ZQAVS_STITCH_PAD, GstAggregatorPad)

// Registers the element with `plugin` (nullptr: statically, for programs that link it in).
gboolean gst_zqavs_stitch_register(GstPlugin* plugin);

G_END_DECLS

#endif  // ZQAVS_GST_STITCH_H
