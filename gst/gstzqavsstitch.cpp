// The library's instance is thread-local, while GstAggregator calls aggregate() on its src pad
// task and start()/stop() on whichever thread changes the state. So the element owns a thread
// (LibraryThread) that creates the instance, stitches every frame and tears it down:
// aggregate() hands it each frame and waits, and stop(), which runs once the src pad task has
// stopped, hands it the teardown.
#include "gstzqavsstitch.h"

#include <gst/allocators/allocators.h>
#include <gst/video/video.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "calib_loader.h"
#include "fd_buffer_pool.h"
#include "library_thread.h"
#include "zqavs_synth.h"
#include "zqgfx_gpu_avs.h"

GST_DEBUG_CATEGORY_STATIC(zqavs_stitch_debug);
#define GST_CAT_DEFAULT zqavs_stitch_debug

namespace {

constexpr int kMaxCameras = 10;

#define ZQAVS_NV12_CAPS GST_VIDEO_CAPS_MAKE("NV12") "; " GST_VIDEO_CAPS_MAKE_WITH_FEATURES("memory:DMABuf", "NV12")

GstStaticPadTemplate sinkTemplate =
    GST_STATIC_PAD_TEMPLATE("sink_%u", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(ZQAVS_NV12_CAPS));
GstStaticPadTemplate srcTemplate =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE("NV12")));

enum { PROP_0, PROP_CALIBRATION, PROP_SYNC, PROP_PATH, PROP_COMPENSATION };

// The library's compensation modes, by the numbers it takes.
GType compensationType()
{
    static GType type = 0;
    static const GEnumValue values[] = {
        {0, "No compensation", "off"},
        {1, "One gain per camera", "gain"},
        {2, "One gain per camera and colour channel", "channels"},
        {0, nullptr, nullptr},
    };
    if (g_once_init_enter(&type))
        g_once_init_leave(&type, g_enum_register_static("GstZqavsStitchCompensation", values));
    return type;
}

constexpr int kDefaultCompensation = 2;
constexpr float kCompensationSmoothing = 0.1f;

// The library's instance and everything it reads. Lives on the element's LibraryThread only.
struct LibraryInstance {
    ZQGFX_AVS_CONTEXT_T context{};
    std::string calibDir;  // ends in '/', as the library appends file names
    bool ready = false;
    int askedCompensation = 0;  // the mode asked of the library last, whether it took it or not
    bool compensating = false;
    std::vector<float> gains;  // those the last frame was drawn with, 3 per camera

    bool open(const zqavs_synth::RigConfig& rig, bool sync, std::string* error)
    {
        context = zqavs_synth::makeContext(rig, sync);
        context.meshFilePath = &calibDir[0];
        if (ZQGFX_AVS_init(&context) != ZQGFX_AVS_SUCCESS) {
            *error = "ZQGFX_AVS_init failed (the library's lines on standard output say why)";
            return false;
        }
        ready = true;
        askedCompensation = 0;
        compensating = false;
        gains.assign(static_cast<size_t>(rig.cameras) * 3, 1.0f);
        return true;
    }

    // False when the library refuses the mode (it says why on standard output).
    bool setCompensation(int mode)
    {
        askedCompensation = mode;
        const bool taken = ZQGFX_AVS_set_compensation(&context, mode, kCompensationSmoothing) == ZQGFX_AVS_SUCCESS;
        compensating = taken && mode != 0;
        return taken;
    }

    void readGains()
    {
        ZQGFX_AVS_get_compensation(&context, gains.data(), static_cast<int>(gains.size()));
    }

    bool frame(std::vector<int>& fds, std::string* error)
    {
        context.inputFdArray = fds.data();
        if (ZQGFX_AVS_AllProcess(&context) != ZQGFX_AVS_SUCCESS) {
            *error = "ZQGFX_AVS_AllProcess failed (the library's lines on standard output say why)";
            return false;
        }
        if (context.useSync) {
            void* fence = ZQGFX_AVS_create_sync();
            if (!fence || ZQGFX_AVS_wait_sync(fence) != ZQGFX_AVS_SUCCESS) {
                *error = "waiting on the frame's fence failed";
                return false;
            }
        }
        return true;
    }

    void close()
    {
        if (ready) ZQGFX_AVS_deinit(&context);
        ready = false;
    }
};

// What the element keeps besides its GObject fields. Settings and `path` are guarded by the
// object lock; the rest belongs to the streaming side (start/stop and the src pad task).
struct StitchState {
    std::string calibration;
    bool sync = false;
    int compensation = kDefaultCompensation;
    std::string path = "none";

    zqavs_synth::RigConfig rig;
    bool useSync = false;
    std::unique_ptr<zqavs_gst::LibraryThread> worker;
    LibraryInstance library;
    bool targetPath = false;  // imports dma-bufs only; other memory is copied into the pools'
    zqavs_gst::DescriptorLedger ledger;
    GstBufferPool* outputPool = nullptr;
    guint framesSinceReport = 0;  // frames stitched with compensation since its last message
};

// Fixed pools, made before any upstream descriptor reaches the library and kept until it is torn
// down, so that their descriptor numbers never name anything else.
constexpr guint kOutputBuffers = 6;
constexpr guint kStagingBuffers = 2;

}  // namespace

struct _GstZqavsStitch {
    GstAggregator parent;
    StitchState* state;
};

struct _GstZqavsStitchPad {
    GstAggregatorPad parent;
    GstVideoInfo info;
    gboolean negotiated;
    GstBufferPool* staging;  // copies of frames the library cannot read as they are
    GstBuffer* last;         // stands in for a late frame of a live source
};

G_DEFINE_TYPE(GstZqavsStitchPad, gst_zqavs_stitch_pad, GST_TYPE_AGGREGATOR_PAD)
G_DEFINE_TYPE(GstZqavsStitch, gst_zqavs_stitch, GST_TYPE_AGGREGATOR)

// ---- pads -----------------------------------------------------------------------------------

static void clearLast(GstZqavsStitchPad* pad)
{
    gst_clear_buffer(&pad->last);
}

static void releasePool(GstBufferPool** pool)
{
    if (!*pool) return;
    gst_buffer_pool_set_active(*pool, FALSE);
    gst_clear_object(pool);
}

static GstFlowReturn padFlush(GstAggregatorPad* aggpad, GstAggregator*)
{
    clearLast(GST_ZQAVS_STITCH_PAD(aggpad));
    return GST_FLOW_OK;
}

static void padFinalize(GObject* object)
{
    GstZqavsStitchPad* pad = GST_ZQAVS_STITCH_PAD(object);
    clearLast(pad);
    releasePool(&pad->staging);
    G_OBJECT_CLASS(gst_zqavs_stitch_pad_parent_class)->finalize(object);
}

static void gst_zqavs_stitch_pad_class_init(GstZqavsStitchPadClass* klass)
{
    G_OBJECT_CLASS(klass)->finalize = padFinalize;
    GST_AGGREGATOR_PAD_CLASS(klass)->flush = padFlush;
}

static void gst_zqavs_stitch_pad_init(GstZqavsStitchPad* pad)
{
    gst_video_info_init(&pad->info);
}

static int padIndex(GstPad* pad)
{
    const gchar* name = GST_PAD_NAME(pad);
    return g_str_has_prefix(name, "sink_") ? atoi(name + 5) : -1;
}

// The sink pads in camera order, each with a reference.
static std::vector<GstZqavsStitchPad*> sinkPadsInOrder(GstZqavsStitch* self)
{
    std::vector<GstZqavsStitchPad*> pads;
    GST_OBJECT_LOCK(self);
    for (GList* l = GST_ELEMENT(self)->sinkpads; l; l = l->next)
        pads.push_back(GST_ZQAVS_STITCH_PAD(gst_object_ref(l->data)));
    GST_OBJECT_UNLOCK(self);
    std::sort(pads.begin(), pads.end(), [](GstZqavsStitchPad* a, GstZqavsStitchPad* b) {
        return padIndex(GST_PAD(a)) < padIndex(GST_PAD(b));
    });
    return pads;
}

static void unrefAll(std::vector<GstZqavsStitchPad*>& pads)
{
    for (GstZqavsStitchPad* pad : pads) gst_object_unref(pad);
    pads.clear();
}

// ---- caps -----------------------------------------------------------------------------------

static bool calibrated(GstZqavsStitch* self)
{
    return self->state->worker != nullptr;
}

// The calibration's source size first, so that a source free to choose takes it; then any other
// size, so that a source held to another size gets as far as the caps event, whose error names
// the pad and both sizes instead of leaving the source with a bare "not negotiated".
static GstCaps* sinkCaps(GstZqavsStitch* self, GstAggregatorPad* pad)
{
    GstCaps* any = gst_pad_get_pad_template_caps(GST_PAD(pad));
    if (!calibrated(self)) return any;
    GstCaps* preferred = gst_caps_copy(any);
    const zqavs_synth::RigConfig& rig = self->state->rig;
    gst_caps_set_simple(preferred, "width", G_TYPE_INT, rig.src_width, "height", G_TYPE_INT, rig.src_height, nullptr);
    return gst_caps_merge(preferred, any);
}

// Why `info` does not fit the calibration, or an empty string.
static std::string sinkCapsProblem(GstZqavsStitch* self, GstPad* pad, const GstVideoInfo& info)
{
    const zqavs_synth::RigConfig& rig = self->state->rig;
    if (GST_VIDEO_INFO_WIDTH(&info) == rig.src_width && GST_VIDEO_INFO_HEIGHT(&info) == rig.src_height) return "";
    gchar* text = g_strdup_printf("%s: the frames are %dx%d, the calibration %s wants %dx%d", GST_PAD_NAME(pad),
                                  GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                  self->state->calibration.c_str(), rig.src_width, rig.src_height);
    std::string problem(text);
    g_free(text);
    return problem;
}

static gboolean setSinkCaps(GstZqavsStitch* self, GstZqavsStitchPad* pad, GstCaps* caps)
{
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("%s: caps without a video format", GST_PAD_NAME(pad)),
                          ("%" GST_PTR_FORMAT, caps));
        return FALSE;
    }
    const std::string problem = sinkCapsProblem(self, GST_PAD(pad), info);
    if (!problem.empty()) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("%s", problem.c_str()), ("%" GST_PTR_FORMAT, caps));
        return FALSE;
    }
    GST_OBJECT_LOCK(self);
    pad->info = info;
    pad->negotiated = TRUE;
    GST_OBJECT_UNLOCK(self);
    gst_pad_mark_reconfigure(GST_AGGREGATOR_SRC_PAD(self));
    return TRUE;
}

static bool allNegotiated(const std::vector<GstZqavsStitchPad*>& pads)
{
    return std::all_of(pads.begin(), pads.end(), [](GstZqavsStitchPad* p) { return p->negotiated; });
}

// Sink pads sink_0 .. sink_{N-1} for the calibration's N cameras, or why not.
static std::string padSetProblem(GstZqavsStitch* self, const std::vector<GstZqavsStitchPad*>& pads)
{
    const int cameras = self->state->rig.cameras;
    bool inOrder = true;
    for (size_t i = 0; i < pads.size(); ++i) inOrder = inOrder && padIndex(GST_PAD(pads[i])) == static_cast<int>(i);
    if (static_cast<int>(pads.size()) == cameras && inOrder) return "";
    gchar* text = g_strdup_printf("%zu sink pads%s, the calibration %s has %d cameras (sink_0 .. sink_%d)",
                                  pads.size(), inOrder ? "" : " not numbered from sink_0 on",
                                  self->state->calibration.c_str(), cameras, cameras - 1);
    std::string problem(text);
    g_free(text);
    return problem;
}

static GstFlowReturn updateSrcCaps(GstAggregator* agg, GstCaps* downstream, GstCaps** out)
{
    GstZqavsStitch* self = GST_ZQAVS_STITCH(agg);
    std::vector<GstZqavsStitchPad*> pads = sinkPadsInOrder(self);
    const std::string problem = padSetProblem(self, pads);
    const bool negotiated = allNegotiated(pads);
    const GstVideoInfo first = pads.empty() ? GstVideoInfo{} : pads[0]->info;
    unrefAll(pads);
    if (!problem.empty()) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("%s", problem.c_str()), (nullptr));
        return GST_FLOW_NOT_NEGOTIATED;
    }
    if (!negotiated) return GST_AGGREGATOR_FLOW_NEED_DATA;
    const zqavs_synth::RigConfig& rig = self->state->rig;
    GstCaps* caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "NV12", "width", G_TYPE_INT,
                                        rig.bld_width, "height", G_TYPE_INT, rig.bld_height, "framerate",
                                        GST_TYPE_FRACTION, GST_VIDEO_INFO_FPS_N(&first), GST_VIDEO_INFO_FPS_D(&first),
                                        "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr);
    *out = gst_caps_intersect(caps, downstream);
    gst_caps_unref(caps);
    if (gst_caps_is_empty(*out)) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("downstream does not take NV12 %dx%d", rig.bld_width, rig.bld_height),
                          ("downstream caps %" GST_PTR_FORMAT, downstream));
        gst_clear_caps(out);
        return GST_FLOW_NOT_NEGOTIATED;
    }
    return GST_FLOW_OK;
}

static bool makePools(GstZqavsStitch* self)
{
    StitchState& state = *self->state;
    if (!state.outputPool)
        state.outputPool =
            zqavs_gst::fixedFramePool(state.rig.bld_width, state.rig.bld_height, kOutputBuffers);
    bool made = state.outputPool != nullptr;
    std::vector<GstZqavsStitchPad*> pads = sinkPadsInOrder(self);
    for (GstZqavsStitchPad* pad : pads) {
        if (!pad->staging)
            pad->staging =
                zqavs_gst::fixedFramePool(state.rig.src_width, state.rig.src_height, kStagingBuffers);
        made = made && pad->staging;
    }
    unrefAll(pads);
    return made;
}

static gboolean negotiatedSrcCaps(GstAggregator* agg, GstCaps* caps)
{
    GstZqavsStitch* self = GST_ZQAVS_STITCH(agg);
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) return FALSE;
    if (!makePools(self)) {
        GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT, ("cannot make the frame buffers"), (nullptr));
        return FALSE;
    }
    // A frame is stitched within its own duration, or the pipeline could not keep up anyway.
    if (GST_VIDEO_INFO_FPS_N(&info) > 0) {
        const GstClockTime frame =
            gst_util_uint64_scale(GST_SECOND, GST_VIDEO_INFO_FPS_D(&info), GST_VIDEO_INFO_FPS_N(&info));
        gst_aggregator_set_latency(agg, frame, frame);
    }
    return GST_AGGREGATOR_CLASS(gst_zqavs_stitch_parent_class)->negotiated_src_caps(agg, caps);
}

static gboolean sinkEvent(GstAggregator* agg, GstAggregatorPad* aggpad, GstEvent* event)
{
    if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS)
        return GST_AGGREGATOR_CLASS(gst_zqavs_stitch_parent_class)->sink_event(agg, aggpad, event);
    GstCaps* caps = nullptr;
    gst_event_parse_caps(event, &caps);
    const gboolean ok = setSinkCaps(GST_ZQAVS_STITCH(agg), GST_ZQAVS_STITCH_PAD(aggpad), caps);
    gst_event_unref(event);
    return ok;
}

static gboolean sinkQuery(GstAggregator* agg, GstAggregatorPad* aggpad, GstQuery* query)
{
    GstZqavsStitch* self = GST_ZQAVS_STITCH(agg);
    switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_CAPS: {
        GstCaps* filter = nullptr;
        gst_query_parse_caps(query, &filter);
        GstCaps* caps = sinkCaps(self, aggpad);
        if (filter) {
            GstCaps* both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
            gst_caps_unref(caps);
            caps = both;
        }
        gst_query_set_caps_result(query, caps);
        gst_caps_unref(caps);
        return TRUE;
    }
    case GST_QUERY_ACCEPT_CAPS: {
        // Any NV12 size, as in the caps above.
        GstCaps* caps = nullptr;
        gst_query_parse_accept_caps(query, &caps);
        GstCaps* templ = gst_pad_get_pad_template_caps(GST_PAD(aggpad));
        gst_query_set_accept_caps_result(query, gst_caps_is_subset(caps, templ));
        gst_caps_unref(templ);
        return TRUE;
    }
    default:
        return GST_AGGREGATOR_CLASS(gst_zqavs_stitch_parent_class)->sink_query(agg, aggpad, query);
    }
}

// Upstream may send any stride (in a video meta), and may write straight into memory the library
// reads as it is.
static gboolean proposeAllocation(GstAggregator*, GstAggregatorPad*, GstQuery*, GstQuery* query)
{
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    GstCaps* caps = nullptr;
    gboolean needPool = FALSE;
    gst_query_parse_allocation(query, &caps, &needPool);
    GstVideoInfo info;
    if (!needPool || !caps || !gst_video_info_from_caps(&info, caps)) return TRUE;
    GstBufferPool* pool = zqavs_fd_buffer_pool_new();
    const GstVideoInfo layout = zqavs_gst::libraryLayout(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info));
    gst_query_add_allocation_pool(query, pool, static_cast<guint>(GST_VIDEO_INFO_SIZE(&layout)), 0, 0);
    gst_object_unref(pool);
    return TRUE;
}

// ---- frames ---------------------------------------------------------------------------------

// One camera's frame as the library reads it: the buffer itself or a copy in the library's layout.
struct CameraFrame {
    GstBuffer* buffer = nullptr;  // holds the descriptor open while the library reads it
    int fd = -1;
};

static bool copyIntoStaging(GstZqavsStitch* self, GstZqavsStitchPad* pad, GstBuffer* buffer, CameraFrame* out)
{
    GstBuffer* staged = nullptr;
    if (gst_buffer_pool_acquire_buffer(pad->staging, &staged, nullptr) != GST_FLOW_OK) return false;
    const GstVideoInfo layout = zqavs_gst::libraryLayout(self->state->rig.src_width, self->state->rig.src_height);
    GstVideoFrame from, to;
    bool copied = false;
    if (gst_video_frame_map(&from, &pad->info, buffer, GST_MAP_READ)) {
        if (gst_video_frame_map(&to, &layout, staged, GST_MAP_WRITE)) {
            copied = gst_video_frame_copy(&to, &from);
            gst_video_frame_unmap(&to);
        }
        gst_video_frame_unmap(&from);
    }
    if (!copied) {
        gst_buffer_unref(staged);
        return false;
    }
    out->buffer = staged;
    out->fd = zqavs_gst::poolDescriptor(staged);
    return true;
}

static bool cameraFrame(GstZqavsStitch* self, GstZqavsStitchPad* pad, GstBuffer* buffer, CameraFrame* out)
{
    const int fd = self->state->ledger.admit(buffer, pad->info, self->state->targetPath);
    GST_LOG_OBJECT(pad, "%s", fd < 0 ? "copying the frame" : "the frame goes as it is");
    if (fd < 0) return copyIntoStaging(self, pad, buffer, out);
    out->buffer = gst_buffer_ref(buffer);
    out->fd = fd;
    return true;
}

// Opens the library's instance on its thread, once: the path it takes decides which memory it
// can read as it is.
static bool openLibrary(GstZqavsStitch* self, std::string* error)
{
    StitchState& state = *self->state;
    if (state.library.ready) return true;
    std::string path;
    state.worker->run([&] {
        if (state.library.open(state.rig, state.useSync, error)) path = ZQGFX_AVS_get_path();
    });
    if (path.empty()) return false;
    state.targetPath = path == "target";
    GST_OBJECT_LOCK(self);
    state.path = path;
    GST_OBJECT_UNLOCK(self);
    return true;
}

// Hands a change of the compensation property to the library, on its thread, before a frame.
static void updateCompensation(GstZqavsStitch* self, LibraryInstance& library)
{
    GST_OBJECT_LOCK(self);
    const int mode = self->state->compensation;
    GST_OBJECT_UNLOCK(self);
    if (mode == library.askedCompensation) return;
    if (!library.setCompensation(mode))
        GST_ELEMENT_WARNING(self, LIBRARY, SETTINGS,
                            ("the library refused exposure compensation on the %s path", ZQGFX_AVS_get_path()),
                            ("stitching without it; the library's line on standard output says why"));
}

static bool stitchOnLibraryThread(GstZqavsStitch* self, std::vector<int>& fds, std::string* error)
{
    bool ok = false;
    const gint64 start = g_get_monotonic_time();
    self->state->worker->run([&] {
        LibraryInstance& library = self->state->library;
        updateCompensation(self, library);
        ok = library.frame(fds, error);
        if (ok && library.compensating) library.readGains();
    });
    GST_LOG_OBJECT(self, "stitched in %.2f ms", (g_get_monotonic_time() - start) / 1000.0);
    return ok;
}

// sink_0's timing, carried from its segment to the output's through running time.
static void stampOutput(GstZqavsStitch* self, GstZqavsStitchPad* first, GstBuffer* in, GstBuffer* out)
{
    GstAggregatorPad* src = GST_AGGREGATOR_PAD(GST_AGGREGATOR_SRC_PAD(self));
    GST_OBJECT_LOCK(self);
    const GstSegment* inSegment = &GST_AGGREGATOR_PAD(first)->segment;
    const GstClockTime running = gst_segment_to_running_time(inSegment, GST_FORMAT_TIME, GST_BUFFER_PTS(in));
    GST_BUFFER_PTS(out) = gst_segment_position_from_running_time(&src->segment, GST_FORMAT_TIME, running);
    GST_BUFFER_DURATION(out) = GST_BUFFER_DURATION(in);
    GST_LOG_OBJECT(self, "sink_0 %" GST_TIME_FORMAT " -> %" GST_TIME_FORMAT " in %" GST_SEGMENT_FORMAT,
                   GST_TIME_ARGS(GST_BUFFER_PTS(in)), GST_TIME_ARGS(GST_BUFFER_PTS(out)), &src->segment);
    if (GST_BUFFER_PTS_IS_VALID(out))
        src->segment.position =
            GST_BUFFER_PTS(out) + (GST_BUFFER_DURATION_IS_VALID(out) ? GST_BUFFER_DURATION(out) : 0);
    GST_OBJECT_UNLOCK(self);
}

// This round's frame of every pad; false when some pad has none to give.
static bool collectInputs(const std::vector<GstZqavsStitchPad*>& pads, gboolean timeout,
                          std::vector<GstBuffer*>* inputs, bool* eos)
{
    *eos = false;
    bool complete = true;
    for (GstZqavsStitchPad* pad : pads) {
        GstBuffer* buffer = gst_aggregator_pad_peek_buffer(GST_AGGREGATOR_PAD(pad));
        if (!buffer && gst_aggregator_pad_is_eos(GST_AGGREGATOR_PAD(pad))) *eos = true;
        if (!buffer && timeout && pad->last) buffer = gst_buffer_ref(pad->last);
        complete = complete && buffer;
        inputs->push_back(buffer);
    }
    return complete && !*eos;
}

// Takes this round's buffers off the pads, keeping each as the pad's stand-in.
static void consumeInputs(const std::vector<GstZqavsStitchPad*>& pads)
{
    for (GstZqavsStitchPad* pad : pads) {
        GstBuffer* buffer = gst_aggregator_pad_pop_buffer(GST_AGGREGATOR_PAD(pad));
        if (!buffer) continue;
        gst_clear_buffer(&pad->last);
        pad->last = buffer;
    }
}

// Frames a second at `info`'s rate, rounded; 30 where it has none.
static guint framesPerSecond(const GstVideoInfo& info)
{
    const int n = GST_VIDEO_INFO_FPS_N(&info), d = GST_VIDEO_INFO_FPS_D(&info);
    return n > 0 && d > 0 ? static_cast<guint>(std::max(1, (n + d / 2) / d)) : 30;
}

// "zqavs-compensation": the camera count and the gains (R, G, B per camera) of the last frame.
static GstMessage* gainsMessage(GstZqavsStitch* self)
{
    const std::vector<float>& gains = self->state->library.gains;
    GValue array = G_VALUE_INIT;
    gst_value_array_init(&array, static_cast<guint>(gains.size()));
    for (float gain : gains) {
        GValue value = G_VALUE_INIT;
        g_value_init(&value, G_TYPE_FLOAT);
        g_value_set_float(&value, gain);
        gst_value_array_append_and_take_value(&array, &value);
    }
    GstStructure* report =
        gst_structure_new("zqavs-compensation", "cameras", G_TYPE_INT, self->state->rig.cameras, nullptr);
    gst_structure_take_value(report, "gains", &array);
    return gst_message_new_element(GST_OBJECT(self), report);
}

// With compensation on, the gains go to the application about once a second of sink_0's frames.
static void reportGains(GstZqavsStitch* self, GstZqavsStitchPad* first)
{
    StitchState& state = *self->state;
    if (!state.library.compensating || ++state.framesSinceReport < framesPerSecond(first->info)) return;
    state.framesSinceReport = 0;
    gst_element_post_message(GST_ELEMENT(self), gainsMessage(self));
}

static GstFlowReturn stitchFrame(GstZqavsStitch* self, const std::vector<GstZqavsStitchPad*>& pads,
                                 const std::vector<GstBuffer*>& inputs)
{
    std::string error;
    if (!openLibrary(self, &error)) {
        GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("%s", error.c_str()), (nullptr));
        return GST_FLOW_ERROR;
    }
    std::vector<CameraFrame> cameras(pads.size());
    std::vector<int> fds;
    GstFlowReturn ret = GST_FLOW_OK;
    for (size_t i = 0; i < pads.size() && ret == GST_FLOW_OK; ++i) {
        if (!cameraFrame(self, pads[i], inputs[i], &cameras[i])) {
            GST_ELEMENT_ERROR(self, RESOURCE, FAILED, ("%s: cannot read the frame", GST_PAD_NAME(pads[i])), (nullptr));
            ret = GST_FLOW_ERROR;
        }
        fds.push_back(cameras[i].fd);
    }
    GstBuffer* output = nullptr;
    if (ret == GST_FLOW_OK) ret = gst_buffer_pool_acquire_buffer(self->state->outputPool, &output, nullptr);
    if (ret == GST_FLOW_OK) {
        fds.push_back(zqavs_gst::poolDescriptor(output));
        if (!stitchOnLibraryThread(self, fds, &error)) {
            GST_ELEMENT_ERROR(self, STREAM, FAILED, ("%s", error.c_str()), (nullptr));
            ret = GST_FLOW_ERROR;
        }
    }
    for (CameraFrame& camera : cameras) gst_clear_buffer(&camera.buffer);
    if (ret != GST_FLOW_OK) {
        gst_clear_buffer(&output);
        return ret;
    }
    stampOutput(self, pads[0], inputs[0], output);
    reportGains(self, pads[0]);
    consumeInputs(pads);
    return gst_aggregator_finish_buffer(GST_AGGREGATOR(self), output);
}

// A live round where some camera has not sent any frame yet: the others' frames are dropped so
// that time moves on.
static void dropRound(GstZqavsStitch* self, const std::vector<GstZqavsStitchPad*>& pads)
{
    GstBuffer* first = gst_aggregator_pad_peek_buffer(GST_AGGREGATOR_PAD(pads[0]));
    if (first) {
        GstBuffer* stamp = gst_buffer_new();
        stampOutput(self, pads[0], first, stamp);
        gst_buffer_unref(stamp);
        gst_buffer_unref(first);
    }
    for (GstZqavsStitchPad* pad : pads) gst_aggregator_pad_drop_buffer(GST_AGGREGATOR_PAD(pad));
}

// Frames outside their segment (before a seek's start, after its stop) are not stitched; one that
// straddles an end keeps the part inside, so that its time maps to the output's segment.
static GstBuffer* clip(GstAggregator*, GstAggregatorPad* pad, GstBuffer* buffer)
{
    const GstClockTime pts = GST_BUFFER_PTS(buffer);
    if (!GST_CLOCK_TIME_IS_VALID(pts)) return buffer;
    const bool timed = GST_BUFFER_DURATION_IS_VALID(buffer);
    const GstClockTime end = timed ? pts + GST_BUFFER_DURATION(buffer) : GST_CLOCK_TIME_NONE;
    guint64 start = 0, stop = 0;
    if (!gst_segment_clip(&pad->segment, GST_FORMAT_TIME, pts, end, &start, &stop)) {
        gst_buffer_unref(buffer);
        return nullptr;
    }
    if (start == pts && (!timed || stop == end)) return buffer;
    buffer = gst_buffer_make_writable(buffer);
    GST_BUFFER_PTS(buffer) = start;
    if (timed) GST_BUFFER_DURATION(buffer) = stop - start;
    return buffer;
}

static GstFlowReturn aggregate(GstAggregator* agg, gboolean timeout)
{
    GstZqavsStitch* self = GST_ZQAVS_STITCH(agg);
    std::vector<GstZqavsStitchPad*> pads = sinkPadsInOrder(self);
    std::vector<GstBuffer*> inputs;
    bool eos = false;
    GstFlowReturn ret = GST_FLOW_OK;
    if (pads.empty()) {
        ret = GST_FLOW_EOS;
    } else if (!allNegotiated(pads) || !self->state->outputPool) {
        ret = GST_FLOW_NOT_NEGOTIATED;  // the caps' error is posted already
    } else if (collectInputs(pads, timeout, &inputs, &eos)) {
        ret = stitchFrame(self, pads, inputs);
    } else if (eos) {
        ret = GST_FLOW_EOS;  // the stream ends with its shortest camera
    } else if (timeout) {
        dropRound(self, pads);
    }
    for (GstBuffer* buffer : inputs)
        if (buffer) gst_buffer_unref(buffer);
    unrefAll(pads);
    return ret;
}

// ---- state ----------------------------------------------------------------------------------

static gboolean start(GstAggregator* agg)
{
    GstZqavsStitch* self = GST_ZQAVS_STITCH(agg);
    StitchState& state = *self->state;
    GST_OBJECT_LOCK(self);
    const std::string dir = state.calibration;
    state.useSync = state.sync;
    GST_OBJECT_UNLOCK(self);
    if (dir.empty()) {
        GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND, ("no calibration directory: set the 'calibration' property"),
                          (nullptr));
        return FALSE;
    }
    zqavs_synth::Calibration calib;
    std::string error;
    if (!zqavs::loadCalibration(dir, "auto", &calib, &error)) {
        GST_ELEMENT_ERROR(self, RESOURCE, READ, ("%s: %s", dir.c_str(), error.c_str()), (nullptr));
        return FALSE;
    }
    if (calib.rig.cameras < 1 || calib.rig.cameras > kMaxCameras) {
        GST_ELEMENT_ERROR(self, RESOURCE, READ, ("%s: %d cameras, 1 to %d are supported", dir.c_str(),
                                                 calib.rig.cameras, kMaxCameras), (nullptr));
        return FALSE;
    }
    state.rig = calib.rig;
    state.library.calibDir = dir.back() == '/' ? dir : dir + "/";
    state.worker = std::make_unique<zqavs_gst::LibraryThread>();
    return TRUE;
}

// A src pad task waiting for an output buffer that downstream keeps must not hold up its stop.
static gboolean srcActivate(GstAggregator* agg, GstPadMode mode, gboolean active)
{
    GstBufferPool* pool = GST_ZQAVS_STITCH(agg)->state->outputPool;
    if (!active && pool) gst_buffer_pool_set_flushing(pool, TRUE);
    GstAggregatorClass* parent = GST_AGGREGATOR_CLASS(gst_zqavs_stitch_parent_class);
    return parent->src_activate ? parent->src_activate(agg, mode, active) : TRUE;
}

// Called once the src pad task has stopped: the instance is torn down on the thread that made it.
static gboolean stop(GstAggregator* agg)
{
    GstZqavsStitch* self = GST_ZQAVS_STITCH(agg);
    StitchState& state = *self->state;
    if (state.worker) {
        state.worker->run([&state] { state.library.close(); });
        state.worker.reset();
    }
    state.ledger = zqavs_gst::DescriptorLedger();
    state.targetPath = false;
    state.framesSinceReport = 0;
    releasePool(&state.outputPool);
    std::vector<GstZqavsStitchPad*> pads = sinkPadsInOrder(self);
    for (GstZqavsStitchPad* pad : pads) {
        clearLast(pad);
        pad->negotiated = FALSE;
        releasePool(&pad->staging);
    }
    unrefAll(pads);
    GST_OBJECT_LOCK(self);
    state.path = "none";
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

// ---- GObject --------------------------------------------------------------------------------

static void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    GstZqavsStitch* self = GST_ZQAVS_STITCH(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_CALIBRATION: {
        const gchar* dir = g_value_get_string(value);
        self->state->calibration = dir ? dir : "";
        break;
    }
    case PROP_SYNC:
        self->state->sync = g_value_get_boolean(value);
        break;
    case PROP_COMPENSATION:
        self->state->compensation = g_value_get_enum(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
    GST_OBJECT_UNLOCK(self);
}

static void getProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    GstZqavsStitch* self = GST_ZQAVS_STITCH(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_CALIBRATION:
        g_value_set_string(value, self->state->calibration.c_str());
        break;
    case PROP_SYNC:
        g_value_set_boolean(value, self->state->sync);
        break;
    case PROP_PATH:
        g_value_set_string(value, self->state->path.c_str());
        break;
    case PROP_COMPENSATION:
        g_value_set_enum(value, self->state->compensation);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
    GST_OBJECT_UNLOCK(self);
}

static void finalize(GObject* object)
{
    delete GST_ZQAVS_STITCH(object)->state;
    G_OBJECT_CLASS(gst_zqavs_stitch_parent_class)->finalize(object);
}

static void gst_zqavs_stitch_class_init(GstZqavsStitchClass* klass)
{
    GObjectClass* object = G_OBJECT_CLASS(klass);
    object->set_property = setProperty;
    object->get_property = getProperty;
    object->finalize = finalize;
    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(
        object, PROP_CALIBRATION,
        g_param_spec_string("calibration", "Calibration", "The calibration directory (required)", "", flags));
    g_object_class_install_property(
        object, PROP_SYNC,
        g_param_spec_boolean("sync", "Sync", "End frames with a fence instead of a finish", FALSE, flags));
    g_object_class_install_property(
        object, PROP_COMPENSATION,
        g_param_spec_enum("compensation", "Compensation",
                          "Exposure and white-balance compensation between the cameras; gains are posted about once "
                          "a second in a 'zqavs-compensation' element message",
                          compensationType(), kDefaultCompensation,
                          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                   GST_PARAM_MUTABLE_PLAYING)));
    g_object_class_install_property(
        object, PROP_PATH,
        g_param_spec_string("path", "Path", "The library's rendering path once running: target, planes, portable or none",
                            "none", static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_pad_template(
        element, gst_pad_template_new_from_static_pad_template_with_gtype(&sinkTemplate, GST_TYPE_ZQAVS_STITCH_PAD));
    gst_element_class_add_pad_template(
        element, gst_pad_template_new_from_static_pad_template_with_gtype(&srcTemplate, GST_TYPE_AGGREGATOR_PAD));
    gst_element_class_set_static_metadata(element, "Panorama stitcher", "Filter/Video/Compositor",
                                          "Stitches the NV12 frames of 1 to 10 cameras into one panorama on the GPU",
                                          "libzqgfx_avs");

    GstAggregatorClass* agg = GST_AGGREGATOR_CLASS(klass);
    agg->start = start;
    agg->stop = stop;
    agg->aggregate = aggregate;
    agg->sink_event = sinkEvent;
    agg->sink_query = sinkQuery;
    agg->update_src_caps = updateSrcCaps;
    agg->negotiated_src_caps = negotiatedSrcCaps;
    agg->get_next_time = gst_aggregator_simple_get_next_time;
    agg->clip = clip;
    agg->propose_allocation = proposeAllocation;
    agg->src_activate = srcActivate;

    gst_type_mark_as_plugin_api(GST_TYPE_ZQAVS_STITCH_PAD, static_cast<GstPluginAPIFlags>(0));
    gst_type_mark_as_plugin_api(compensationType(), static_cast<GstPluginAPIFlags>(0));
}

static void gst_zqavs_stitch_init(GstZqavsStitch* self)
{
    self->state = new StitchState();
}

gboolean gst_zqavs_stitch_register(GstPlugin* plugin)
{
    GST_DEBUG_CATEGORY_INIT(zqavs_stitch_debug, "zqavsstitch", 0, "panorama stitcher");
    return gst_element_register(plugin, "zqavsstitch", GST_RANK_NONE, GST_TYPE_ZQAVS_STITCH);
}
