// Exposure and white-balance compensation (see exposure_compensation.h).
#include "blend/exposure_compensation.h"

#include <algorithm>
#include <cmath>

#include "gl/DebugLog.h"
#include "blend/gles_multiband_blend.h"

namespace zqgfx_gpu_avs {

namespace {

constexpr double kDark = 10.0 / 255.0, kBright = 245.0 / 255.0;
constexpr double kSigmaN = 10.0 / 255.0, kSigmaG = 0.1;
constexpr double kMinGain = 0.5, kMaxGain = 2.0;
// A sample whose sides' log-luma ratio lies further than this from the seam's median ratio shows
// something only one camera sees; never tighter than kMinSpread so that noise is kept.
constexpr double kSpreadFactor = 4.0 * 1.4826, kMinSpread = 0.1;
// Solving the energy once leaves part of a difference (its prior pulls every gain towards 1);
// solving again on the images as that solution would draw them converges on agreement.
constexpr int kSolveRounds = 200;
constexpr double kSolveDone = 1e-5;
// Half a percent, in the log domain: about one code at the top of the range.
constexpr double kStill = 0.005;

double luma(const ChannelGains& rgb)
{
    return 0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2];
}

double median(std::vector<double> values)
{
    const size_t mid = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + static_cast<long>(mid), values.end());
    return values[mid];
}

struct Sample {
    ChannelGains a, b;
    double logRatio;
};

bool clipped(const uint8_t* p)
{
    for (int c = 0; c < 3; ++c) {
        const double v = p[c] / 255.0;
        if (v < kDark || v > kBright) return true;
    }
    return false;
}

ChannelGains undone(const uint8_t* p, const ChannelGains& applied)
{
    ChannelGains raw{};
    for (int c = 0; c < 3; ++c) raw[c] = p[c] / 255.0 / applied[c];
    return raw;
}

// The means of the samples both sides agree on about as well as the rest do.
SeamMeans meansOfAgreeing(int cameraA, int cameraB, const std::vector<Sample>& samples)
{
    SeamMeans means;
    means.cameraA = cameraA;
    means.cameraB = cameraB;
    if (samples.empty()) return means;
    std::vector<double> ratios, deviations;
    for (const Sample& s : samples) ratios.push_back(s.logRatio);
    const double centre = median(ratios);
    for (double r : ratios) deviations.push_back(std::fabs(r - centre));
    const double limit = std::max(kMinSpread, kSpreadFactor * median(deviations));
    for (const Sample& s : samples) {
        if (std::fabs(s.logRatio - centre) > limit) continue;
        for (int c = 0; c < 3; ++c) {
            means.a[c] += s.a[c];
            means.b[c] += s.b[c];
        }
        ++means.samples;
    }
    for (int c = 0; c < 3; ++c) {
        means.a[c] /= means.samples;
        means.b[c] /= means.samples;
    }
    return means;
}

// Solves `m` x `m` system a x = b in place by Gaussian elimination with partial pivoting; the
// system is symmetric positive definite wherever it comes from the energy.
std::vector<double> solveLinear(std::vector<double> a, std::vector<double> b, int m)
{
    for (int col = 0; col < m; ++col) {
        int pivot = col;
        for (int r = col + 1; r < m; ++r)
            if (std::fabs(a[r * m + col]) > std::fabs(a[pivot * m + col])) pivot = r;
        for (int c = 0; c < m; ++c) std::swap(a[col * m + c], a[pivot * m + c]);
        std::swap(b[col], b[pivot]);
        for (int r = col + 1; r < m; ++r) {
            const double f = a[r * m + col] / a[col * m + col];
            for (int c = col; c < m; ++c) a[r * m + c] -= f * a[col * m + c];
            b[r] -= f * b[col];
        }
    }
    std::vector<double> x(static_cast<size_t>(m));
    for (int r = m - 1; r >= 0; --r) {
        double sum = b[r];
        for (int c = r + 1; c < m; ++c) sum -= a[r * m + c] * x[c];
        x[r] = sum / a[r * m + r];
    }
    return x;
}

// One solve of the energy for intensities `intensity(seam, side)`; cameras without a seam get 1.
template <class Intensity>
std::vector<double> solveEnergy(int n, const std::vector<SeamMeans>& seams, Intensity intensity)
{
    const double data = 1.0 / (kSigmaN * kSigmaN), prior = 1.0 / (kSigmaG * kSigmaG);
    std::vector<double> a(static_cast<size_t>(n) * n, 0.0), b(static_cast<size_t>(n), 0.0);
    for (size_t s = 0; s < seams.size(); ++s) {
        const SeamMeans& seam = seams[s];
        if (seam.samples == 0) continue;
        const int i = seam.cameraA, j = seam.cameraB;
        const double N = seam.samples, Ii = intensity(s, 0), Ij = intensity(s, 1);
        a[i * n + i] += N * (data * Ii * Ii + prior);
        a[j * n + j] += N * (data * Ij * Ij + prior);
        a[i * n + j] -= N * data * Ii * Ij;
        a[j * n + i] -= N * data * Ii * Ij;
        b[i] += N * prior;
        b[j] += N * prior;
    }
    for (int i = 0; i < n; ++i)
        if (a[i * n + i] == 0.0) {
            a[i * n + i] = 1.0;
            b[i] = 1.0;
        }
    return solveLinear(std::move(a), std::move(b), n);
}

}  // namespace

std::vector<SeamMeans> measureSeams(const SeamAtlasLayout& layout, int level, const uint8_t* rgba, int rowPixels,
                                    const std::vector<ChannelGains>& applied, int cameraCount)
{
    std::vector<SeamMeans> result;
    for (int s = 0; s < layout.seamCount(); ++s) {
        if (layout.seam(s).levels <= level) continue;
        const int cameraA = layout.seam(s).camera, cameraB = seamNextCamera(cameraA, cameraCount);
        const AtlasRect ra = layout.sideRect(s, SeamAtlasLayout::sideA, level);
        const AtlasRect rb = layout.sideRect(s, SeamAtlasLayout::sideB, level);
        std::vector<Sample> samples;
        for (int y = 0; y < std::min(ra.h, rb.h); ++y) {
            for (int x = 0; x < std::min(ra.w, rb.w); ++x) {
                const uint8_t* pa = rgba + 4 * (static_cast<size_t>(ra.y + y) * rowPixels + ra.x + x);
                const uint8_t* pb = rgba + 4 * (static_cast<size_t>(rb.y + y) * rowPixels + rb.x + x);
                if (clipped(pa) || clipped(pb)) continue;
                Sample sample{undone(pa, applied[cameraA]), undone(pb, applied[cameraB]), 0.0};
                sample.logRatio = std::log(luma(sample.a)) - std::log(luma(sample.b));
                samples.push_back(sample);
            }
        }
        result.push_back(meansOfAgreeing(cameraA, cameraB, samples));
    }
    return result;
}

std::vector<ChannelGains> solveGains(CompensationMode mode, int cameraCount, const std::vector<SeamMeans>& seams)
{
    std::vector<ChannelGains> gains(static_cast<size_t>(cameraCount), ChannelGains{1.0, 1.0, 1.0});
    if (mode == CompensationMode::off) return gains;
    const int channels = mode == CompensationMode::channels ? 3 : 1;
    for (int c = 0; c < channels; ++c) {
        // The seam's mean in this channel, or its luma for one gain per camera.
        auto raw = [&](size_t s, int side) {
            const ChannelGains& m = side == 0 ? seams[s].a : seams[s].b;
            return channels == 3 ? m[c] : luma(m);
        };
        std::vector<double> g(static_cast<size_t>(cameraCount), 1.0);
        for (int round = 0; round < kSolveRounds; ++round) {
            const std::vector<double> step = solveEnergy(cameraCount, seams, [&](size_t s, int side) {
                const int camera = side == 0 ? seams[s].cameraA : seams[s].cameraB;
                return raw(s, side) * g[camera];
            });
            double largest = 0.0;
            for (int i = 0; i < cameraCount; ++i) {
                g[i] = std::clamp(g[i] * step[i], kMinGain, kMaxGain);
                largest = std::max(largest, std::fabs(step[i] - 1.0));
            }
            if (largest < kSolveDone) break;
        }
        for (int i = 0; i < cameraCount; ++i)
            for (int k = (channels == 3 ? c : 0); k < (channels == 3 ? c + 1 : 3); ++k) gains[i][k] = g[i];
    }
    return gains;
}

std::array<GLfloat, 9> yuvGainMatrix(const ChannelGains& g)
{
    // One gain for all channels scales centred YUV as it is: exactly diagonal, so that the luma
    // and chroma programs can tell that neither plane needs the other.
    if (g[0] == g[1] && g[1] == g[2]) {
        const GLfloat k = static_cast<GLfloat>(g[0]);
        return {k, 0, 0, 0, k, 0, 0, 0, k};
    }
    // YUV from RGB and back (full-range BT.601, offsets left out), rows.
    static const double toYuv[3][3] = {{0.299, 0.587, 0.114}, {-0.168736, -0.331264, 0.5}, {0.5, -0.418688, -0.081312}};
    static const double toRgb[3][3] = {{1.0, 0.0, 1.402}, {1.0, -0.344136, -0.714136}, {1.0, 1.772, 0.0}};
    std::array<GLfloat, 9> m{};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) {
            double sum = 0.0;
            for (int k = 0; k < 3; ++k) sum += toYuv[r][k] * g[k] * toRgb[k][c];
            m[c * 3 + r] = static_cast<GLfloat>(sum);  // column-major
        }
    return m;
}

// ---- the per-frame loop ----------------------------------------------------------------------

void ExposureCompensation::configure(CompensationMode mode, double smoothing, int cameraCount)
{
    mode_ = mode;
    smoothing_ = smoothing;
    if (mode == CompensationMode::off || static_cast<int>(applied_.size()) != cameraCount)
        applied_.assign(static_cast<size_t>(cameraCount), ChannelGains{1.0, 1.0, 1.0});
    // One gain per camera from here on: the channels' gains reached so far meet at their mean.
    if (mode == CompensationMode::gain)
        for (ChannelGains& g : applied_) g.fill(std::cbrt(g[0] * g[1] * g[2]));
    if (mode == CompensationMode::off) release();
}

bool ExposureCompensation::measure(const Source& source)
{
    if (!active() || source.layout == nullptr || source.reads.empty()) return true;
    PendingRead& read = reads_[nextRead_];
    if (read.fence) return true;  // the slot's read has not been taken in yet
    const SeamAtlasLayout& layout = *source.layout;
    const int w = layout.gridWidth(source.level), h = 2 * layout.gridHeight(source.level);
    const size_t bytes = static_cast<size_t>(w) * h * 4;
    if (!read.buffer) {
        GLuint name = 0;
        glGenBuffers(1, &name);
        read.buffer.reset(name);
    }
    glBindBuffer(GL_PIXEL_PACK_BUFFER, read.buffer.get());
    if (read.bytes != bytes) glBufferData(GL_PIXEL_PACK_BUFFER, static_cast<GLsizeiptr>(bytes), nullptr, GL_STREAM_READ);
    const bool whole = source.reads.size() == 1 && source.reads[0].into.w == w;
    if (!whole) glPixelStorei(GL_PACK_ROW_LENGTH, w);
    for (const Source::Read& r : source.reads) {
        glBindFramebuffer(GL_READ_FRAMEBUFFER, r.framebuffer);
        const size_t offset = 4 * (static_cast<size_t>(r.into.y) * w + r.into.x);
        glReadPixels(0, 0, r.into.w, r.into.h, GL_RGBA, GL_UNSIGNED_BYTE, reinterpret_cast<void*>(offset));
    }
    if (!whole) glPixelStorei(GL_PACK_ROW_LENGTH, 0);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    if (!checkGlError("glReadPixels")) return false;
    read.bytes = bytes;
    read.level = source.level;
    read.drawnWith = applied_;
    read.fence.reset(glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0));
    nextRead_ = (nextRead_ + 1) % kReadsInFlight;
    return true;
}

void ExposureCompensation::collect(const SeamAtlasLayout& layout)
{
    if (!active()) return;
    // The oldest read first; one that has not landed yet is left for a later frame.
    for (int k = 0; k < kReadsInFlight; ++k) {
        PendingRead& read = reads_[(nextRead_ + k) % kReadsInFlight];
        if (!read.fence) continue;
        const GLenum state = glClientWaitSync(read.fence.get(), 0, 0);
        if (state != GL_ALREADY_SIGNALED && state != GL_CONDITION_SATISFIED) return;
        read.fence.reset();
        if (read.level >= layout.levels()) continue;  // the blend was set up again since
        const int w = layout.gridWidth(read.level);
        if (read.bytes != static_cast<size_t>(w) * 2 * layout.gridHeight(read.level) * 4) continue;
        glBindBuffer(GL_PIXEL_PACK_BUFFER, read.buffer.get());
        const void* mapped =
            glMapBufferRange(GL_PIXEL_PACK_BUFFER, 0, static_cast<GLsizeiptr>(read.bytes), GL_MAP_READ_BIT);
        if (mapped != nullptr) {
            const std::vector<SeamMeans> seams = measureSeams(layout, read.level, static_cast<const uint8_t*>(mapped),
                                                              w, read.drawnWith, cameraCount());
            glUnmapBuffer(GL_PIXEL_PACK_BUFFER);
            follow(solveGains(mode_, cameraCount(), seams));
        }
        glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    }
}

// The estimate depends on the scene alone (the applied gains are divided out of the samples), so
// following it cannot oscillate; the log domain makes a step up and a step down equally fast.
// Within kStill of the estimate a gain stays where it is: any change of gain flips roundings in
// the 8-bit pyramid levels, so a static scene only gives still frames once the gains stop.
void ExposureCompensation::follow(const std::vector<ChannelGains>& estimate)
{
    for (size_t i = 0; i < applied_.size(); ++i)
        for (int c = 0; c < 3; ++c) {
            const double now = std::log(applied_[i][c]), gap = std::log(estimate[i][c]) - now;
            if (std::fabs(gap) >= kStill) applied_[i][c] = std::exp(now + smoothing_ * gap);
        }
}

void ExposureCompensation::release()
{
    for (PendingRead& read : reads_) read = PendingRead{};
    nextRead_ = 0;
}

}  // namespace zqgfx_gpu_avs
