// The zqavsstitch element in pipelines on the machine's real driver: negotiation, the bytes of
// `zqavs stitch` from every kind of input buffer, the ends of streams, flushing seeks and bad
// calibrations.
#include <gtest/gtest.h>

#include <gst/allocators/allocators.h>
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "gpu/stitch_fixture.h"
#include "gstzqavsstitch.h"

using namespace stitch_test;

namespace {

constexpr GstClockTime kFrame = GST_SECOND / 30;
constexpr GstClockTime kWait = 30 * GST_SECOND;
const std::vector<std::pair<int, int>> kTwoCameras{{320, 240}, {320, 240}};

zqavs_synth::RigConfig twoCameraRig()
{
    zqavs_synth::RigConfig rig = smallRig();
    rig.cameras = 2, rig.src_width = 320, rig.src_height = 240, rig.bld_width = 512, rig.bld_height = 240;
    rig.band_num = 2, rig.overlap_width = 64;
    return rig;
}

class GstStitch : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        gst_init(nullptr, nullptr);
        static const bool registered =
            gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "zqavs", "test", gst_zqavs_stitch_register,
                                       "1.0", "Proprietary", "zqavs", "zqavs", "zqavs");
        ASSERT_TRUE(registered);
    }

    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(zqavs_synth::writeCalibration(rig.calib, dir.path, &error)) << error;
    }

    void TearDown() override
    {
        if (!pipeline) return;
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }

    // `zqavsstitch` fed by one appsrc src<i> per entry of `sizes` (or by `sources`) into appsink `out`.
    void launch(const std::vector<std::pair<int, int>>& sizes, const std::string& properties = "",
                std::string sources = "")
    {
        for (size_t i = 0; i < sizes.size(); ++i)
            sources += " appsrc name=src" + std::to_string(i) + " format=time caps=video/x-raw,format=NV12,width=" +
                       std::to_string(sizes[i].first) + ",height=" + std::to_string(sizes[i].second) +
                       ",framerate=30/1 ! s.sink_" + std::to_string(i);
        const std::string line = "zqavsstitch name=s calibration=" + dir.path + " " + properties +
                                 " ! appsink name=out sync=false max-buffers=64" + sources;
        GError* error = nullptr;
        pipeline = gst_parse_launch(line.c_str(), &error);
        ASSERT_TRUE(pipeline) << (error ? error->message : line);
        sink = element("out");
    }

    GstElement* element(const std::string& name)
    {
        GstElement* found = gst_bin_get_by_name(GST_BIN(pipeline), name.c_str());
        g_object_unref(found);  // the pipeline keeps it
        return found;
    }

    GstAppSrc* source(int index) { return GST_APP_SRC(element("src" + std::to_string(index))); }

    void push(int pad, GstBuffer* buffer, int frame)
    {
        GST_BUFFER_PTS(buffer) = frame * kFrame;
        GST_BUFFER_DURATION(buffer) = kFrame;
        ASSERT_EQ(gst_app_src_push_buffer(source(pad), buffer), GST_FLOW_OK);
    }

    // The first error's text, or "" when the stream ended first.
    std::string outcome()
    {
        GstBus* bus = gst_element_get_bus(pipeline);
        GstMessage* message =
            gst_bus_timed_pop_filtered(bus, kWait, GstMessageType(GST_MESSAGE_ERROR | GST_MESSAGE_EOS));
        gst_object_unref(bus);
        GError* error = nullptr;
        if (message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) gst_message_parse_error(message, &error, nullptr);
        const std::string text = !message ? "timed out" : error ? error->message : "";
        g_clear_error(&error);
        gst_clear_message(&message);
        return text;
    }

    GstSample* pull() { return gst_app_sink_try_pull_sample(GST_APP_SINK(sink), kWait); }

    Rig rig{twoCameraRig()};
    TempDir dir;
    GstElement* pipeline = nullptr;
    GstElement* sink = nullptr;
};

enum class Input { SystemMemory, SystemMemoryWideStride, Memfd, MemfdPool };

// A camera image in a buffer of the given kind: NV12 with the library's stride, or a wider one
// declared in a video meta, or a memfd in the library's layout.
GstBuffer* cameraBuffer(const zqavs_synth::Nv12Image& image, Input input)
{
    if (input == Input::MemfdPool) input = Input::Memfd;
    const size_t rows = static_cast<size_t>(image.height) * 3 / 2;
    const int stride = input == Input::SystemMemoryWideStride ? image.stride + 64 : image.stride;
    const size_t size = rows * stride;
    GstBuffer* buffer = nullptr;
    if (input == Input::Memfd) {
        const int fd = memfd_create("camera", MFD_CLOEXEC);
        EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
        GstAllocator* allocator = gst_fd_allocator_new();
        buffer = gst_buffer_new();
        gst_buffer_append_memory(buffer, gst_fd_allocator_alloc(allocator, fd, size, GST_FD_MEMORY_FLAG_NONE));
        gst_object_unref(allocator);
    } else {
        buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
    }
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    for (size_t r = 0; r < rows; ++r) memcpy(map.data + r * stride, &image.data[r * image.stride], image.width);
    gst_buffer_unmap(buffer, &map);
    gsize offsets[4] = {0, static_cast<gsize>(stride) * image.height};
    gint strides[4] = {stride, stride};
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_NV12, image.width, image.height,
                                   2, offsets, strides);
    return buffer;
}

struct BytesCase {
    const char* name;
    Input input;
    const char* properties;
};

// The tool's panorama is stitched without compensation.
constexpr const char* kUncompensated = "compensation=off";

class GstStitchBytes : public GstStitch, public ::testing::WithParamInterface<BytesCase> {};

// Three sets of camera images take turns (the rig's, the cameras swapped, camera 0 twice), so
// that a stale or misplaced camera frame shows. Frames go one at a time, so new memory may get
// the descriptor numbers of frames already stitched; a pool sends the same buffers again instead.
TEST_P(GstStitchBytes, EveryFrameIsTheToolsPanoramaWithSink0sTiming)
{
    constexpr int kVariants = 3;
    Rig variants[kVariants] = {rig, rig, rig};
    std::swap(variants[1].cameras[0], variants[1].cameras[1]);
    variants[2].cameras[1] = rig.cameras[0];
    std::vector<Frame> expected;
    for (const Rig& variant : variants) expected.push_back(stitchOnce(variant));
    const Input input = GetParam().input;
    GstBuffer* pool[kVariants][2];
    for (int v = 0; v < kVariants; ++v)
        for (int c = 0; c < 2; ++c) pool[v][c] = cameraBuffer(variants[v].cameras[c], input);
    launch(kTwoCameras, GetParam().properties);
    GstCaps* panoramaCaps = gst_caps_from_string("video/x-raw,format=NV12,width=512,height=240,framerate=30/1");
    ASSERT_EQ(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_ASYNC);
    for (int f = 0; f < 2 * kVariants; ++f) {
        const int v = f % kVariants;
        for (int c = 0; c < 2; ++c) {
            const bool pooled = input == Input::MemfdPool;
            push(c, pooled ? gst_buffer_copy(pool[v][c]) : cameraBuffer(variants[v].cameras[c], input), f);
        }
        GstSample* sample = pull();
        ASSERT_TRUE(sample) << "frame " << f;
        GstBuffer* buffer = gst_sample_get_buffer(sample);
        EXPECT_EQ(GST_BUFFER_PTS(buffer), f * kFrame);
        EXPECT_EQ(GST_BUFFER_DURATION(buffer), kFrame);
        EXPECT_TRUE(gst_caps_is_subset(gst_sample_get_caps(sample), panoramaCaps));
        const GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
        EXPECT_TRUE(meta && meta->stride[0] == zqavs_synth::nv12Stride(rig.config.bld_width));
        EXPECT_TRUE(gst_is_fd_memory(gst_buffer_peek_memory(buffer, 0)));
        GstMapInfo map;
        ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
        EXPECT_TRUE(map.size == expected[v].bytes.size() && memcmp(map.data, expected[v].bytes.data(), map.size) == 0)
            << "frame " << f << " differs from the tool's panorama";
        gst_buffer_unmap(buffer, &map);
        gst_sample_unref(sample);
    }
    gst_caps_unref(panoramaCaps);
    for (auto& buffers : pool)
        for (GstBuffer* buffer : buffers) gst_buffer_unref(buffer);
    // The end of stream on one pad ends the stream, whatever the other pad still holds.
    push(0, cameraBuffer(rig.cameras[0], Input::SystemMemory), 2 * kVariants);
    gst_app_src_end_of_stream(source(1));
    EXPECT_EQ(outcome(), "");
    gchar* path = nullptr;
    g_object_get(element("s"), "path", &path, nullptr);
    EXPECT_TRUE(g_str_equal(path, "portable") || g_str_equal(path, "planes") || g_str_equal(path, "target")) << path;
    g_free(path);
}

INSTANTIATE_TEST_SUITE_P(Inputs, GstStitchBytes,
                         ::testing::Values(BytesCase{"SystemMemory", Input::SystemMemory, kUncompensated},
                                           BytesCase{"WideStride", Input::SystemMemoryWideStride, kUncompensated},
                                           BytesCase{"MemfdEveryFrameNew", Input::Memfd, kUncompensated},
                                           BytesCase{"MemfdPool", Input::MemfdPool, kUncompensated},
                                           BytesCase{"MemfdPoolWithFences", Input::MemfdPool,
                                                     "sync=true compensation=off"}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(GstStitch, FlushingSeekRestartsAtTheNewPosition)
{
    std::string sources;
    for (int c = 0; c < 2; ++c)
        sources += " videotestsrc ! video/x-raw,format=NV12,width=320,height=240,framerate=30/1 ! s.sink_" +
                   std::to_string(c);
    launch({}, "", sources);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    for (int f = 0; f < 3; ++f) {
        GstSample* sample = pull();
        ASSERT_TRUE(sample);
        gst_sample_unref(sample);
    }
    const auto flags = GstSeekFlags(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
    const GstClockTime start = GST_SECOND, stop = GST_SECOND * 6 / 5;
    ASSERT_TRUE(gst_element_seek(pipeline, 1.0, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, start, GST_SEEK_TYPE_SET,
                                 stop));
    std::vector<GstClockTime> times;
    while (GstSample* sample = pull()) {
        times.push_back(GST_BUFFER_PTS(gst_sample_get_buffer(sample)));
        gst_sample_unref(sample);
    }
    EXPECT_TRUE(gst_app_sink_is_eos(GST_APP_SINK(sink)));
    // Frames stitched before the flush may not come out after it.
    ASSERT_EQ(times.size(), 6u) << ::testing::PrintToString(times);
    for (size_t i = 0; i < times.size(); ++i) EXPECT_EQ(times[i], gst_util_uint64_scale(30 + i, GST_SECOND, 30));
}

// Compensation is on unless turned off, and its gains come in an element message once a second
// of frames: 20 frames at 10 per second make two, the second with the last frame.
TEST_F(GstStitch, PostsTheCompensationGainsOnceASecond)
{
    std::string sources;
    for (int c = 0; c < 2; ++c)
        sources += " videotestsrc num-buffers=20 ! video/x-raw,format=NV12,width=320,height=240,framerate=10/1"
                   " ! s.sink_" + std::to_string(c);
    launch({}, "", sources);
    GValue mode = G_VALUE_INIT;
    g_object_get_property(G_OBJECT(element("s")), "compensation", &mode);
    gchar* nick = gst_value_serialize(&mode);
    EXPECT_STREQ(nick, "channels");
    g_free(nick);
    g_value_unset(&mode);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    while (GstSample* sample = pull()) gst_sample_unref(sample);
    ASSERT_TRUE(gst_app_sink_is_eos(GST_APP_SINK(sink)));
    // Each message is posted before its frame goes downstream.
    GstBus* bus = gst_element_get_bus(pipeline);
    int reports = 0;
    while (GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_ELEMENT)) {
        const GstStructure* report = gst_message_get_structure(message);
        if (gst_structure_has_name(report, "zqavs-compensation")) {
            ++reports;
            int cameras = 0;
            EXPECT_TRUE(gst_structure_get_int(report, "cameras", &cameras) && cameras == 2);
            const GValue* gains = gst_structure_get_value(report, "gains");
            EXPECT_TRUE(gains && GST_VALUE_HOLDS_ARRAY(gains) && gst_value_array_get_size(gains) == 6u);
            for (guint i = 0; gains && i < gst_value_array_get_size(gains); ++i) {
                const float gain = g_value_get_float(gst_value_array_get_value(gains, i));
                EXPECT_TRUE(gain >= 0.5f && gain <= 2.0f) << gain;
            }
        }
        gst_message_unref(message);
    }
    gst_object_unref(bus);
    EXPECT_EQ(reports, 2);
}

struct RefusalCase {
    const char* name;
    std::vector<std::pair<int, int>> sizes;
    const char* removedFile;  // of the calibration, or ""
    const char* properties;
    const char* error;  // part of the error's text
};

class GstStitchRefusal : public GstStitch, public ::testing::WithParamInterface<RefusalCase> {};

// A bad calibration fails the change to PAUSED; pads or caps that disagree with a good one fail
// once the frames arrive. Either way the error names the problem.
TEST_P(GstStitchRefusal, PostsAnErrorNamingTheProblem)
{
    const RefusalCase& c = GetParam();
    const bool calibrationSpoilt = *c.removedFile || *c.properties;
    if (*c.removedFile) std::filesystem::remove(dir.path + "/" + c.removedFile);
    launch(c.sizes, c.properties);
    EXPECT_EQ(gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE, calibrationSpoilt);
    if (!calibrationSpoilt) {
        for (int p = 0; p < static_cast<int>(c.sizes.size()); ++p)
            push(p, cameraBuffer(rig.cameras[p % 2], Input::SystemMemory), 0);
        gst_app_src_end_of_stream(source(static_cast<int>(c.sizes.size()) - 1));
    }
    const std::string error = outcome();
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, GstStitchRefusal,
    ::testing::Values(
        RefusalCase{"WrongSize", {{320, 240}, {304, 240}}, "", "", "sink_1: the frames are 304x240"},
        RefusalCase{"TooManyPads", {{320, 240}, {320, 240}, {320, 240}}, "", "", "3 sink pads"},
        RefusalCase{"CalibrationNotSet", kTwoCameras, "", "calibration=\"\"", "set the 'calibration' property"},
        RefusalCase{"MissingMesh", kTwoCameras, "zq_ps_gpu_meshy10.bin", "", "zq_ps_gpu_meshy10.bin"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
