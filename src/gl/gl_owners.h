// Move-only owners of GL names for the library's own objects: a half-built set-up releases what
// it made when its owner goes, and nothing is deleted twice. Each owner needs the context that
// made its name current when it releases it.
#ifndef ZQGFX_AVS_GL_OWNERS_H
#define ZQGFX_AVS_GL_OWNERS_H

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl31.h>

#include <memory>
#include <type_traits>
#include <utility>

namespace zqgfx_gpu_avs {

template <void (*Delete)(GLuint)>
class GlName {
public:
    GlName() = default;
    explicit GlName(GLuint name) : name_(name) {}
    ~GlName() { reset(); }
    GlName(GlName&& other) noexcept : name_(std::exchange(other.name_, 0)) {}
    GlName& operator=(GlName&& other) noexcept
    {
        if (this != &other) {
            reset();
            name_ = std::exchange(other.name_, 0);
        }
        return *this;
    }
    GlName(const GlName&) = delete;
    GlName& operator=(const GlName&) = delete;

    GLuint get() const { return name_; }
    explicit operator bool() const { return name_ != 0; }
    void reset(GLuint name = 0)
    {
        if (name_ != 0) Delete(name_);
        name_ = name;
    }
    // Gives the name up without deleting it.
    GLuint release() { return std::exchange(name_, 0); }

private:
    GLuint name_ = 0;
};

namespace gl_owner_detail {
inline void deleteTexture(GLuint name) { glDeleteTextures(1, &name); }
inline void deleteFramebuffer(GLuint name) { glDeleteFramebuffers(1, &name); }
inline void deleteBuffer(GLuint name) { glDeleteBuffers(1, &name); }
inline void deleteProgram(GLuint name) { glDeleteProgram(name); }
inline void deleteVertexArray(GLuint name) { glDeleteVertexArrays(1, &name); }
}  // namespace gl_owner_detail

using GlTexture = GlName<gl_owner_detail::deleteTexture>;
using GlFramebuffer = GlName<gl_owner_detail::deleteFramebuffer>;
using GlBuffer = GlName<gl_owner_detail::deleteBuffer>;
using GlProgram = GlName<gl_owner_detail::deleteProgram>;
using GlVertexArray = GlName<gl_owner_detail::deleteVertexArray>;

struct GlFenceDelete {
    void operator()(GLsync fence) const { glDeleteSync(fence); }
};
using GlFence = std::unique_ptr<std::remove_pointer_t<GLsync>, GlFenceDelete>;

// An EGL image and the display that made it, destroyed with it.
class EglImage {
public:
    EglImage() = default;
    EglImage(EGLDisplay dpy, EGLImageKHR image) : dpy_(dpy), image_(image) {}
    ~EglImage() { reset(); }
    EglImage(EglImage&& other) noexcept
        : dpy_(other.dpy_), image_(std::exchange(other.image_, EGL_NO_IMAGE_KHR))
    {
    }
    EglImage& operator=(EglImage&& other) noexcept
    {
        if (this != &other) {
            reset();
            dpy_ = other.dpy_;
            image_ = std::exchange(other.image_, EGL_NO_IMAGE_KHR);
        }
        return *this;
    }
    EglImage(const EglImage&) = delete;
    EglImage& operator=(const EglImage&) = delete;

    EGLImageKHR get() const { return image_; }
    explicit operator bool() const { return image_ != EGL_NO_IMAGE_KHR; }
    void reset();
    // Gives the image up without destroying it.
    EGLImageKHR release() { return std::exchange(image_, EGL_NO_IMAGE_KHR); }

private:
    EGLDisplay dpy_ = EGL_NO_DISPLAY;
    EGLImageKHR image_ = EGL_NO_IMAGE_KHR;
};

// A new texture of `internalFormat` and `w` x `h`, nearest or linear filtered, clamped to its edges.
GlTexture makeTexture(GLenum internalFormat, int w, int h, bool linear);
// A framebuffer with `texture` as its colour attachment; empty when incomplete.
GlFramebuffer makeFramebuffer(GLuint texture);
// A vertex array whose attribute `location` k reads `sizes[k]` floats of each `stride`-float vertex
// of `buffer`, one after the other; `count` attributes from location 0.
GlVertexArray makeVertexArray(GLuint buffer, const int* sizes, int count);
// A linked program of the two texts; empty (the logs printed) when either fails.
GlProgram makeProgram(const char* vertexText, const char* fragmentText);

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_GL_OWNERS_H
