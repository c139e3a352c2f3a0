// EGL entry points with behaviour: displays, configs, surfaces, contexts, images, fences.
#include "fakegl_internal.h"

#include <algorithm>
#include <cstring>

using namespace fakegl::detail;

namespace {

constexpr EGLint kSurfaceSize = 100;

uint64_t displayFor(intptr_t platform, intptr_t native) {
    auto key = std::make_pair(platform, native);
    auto it = state().displays.find(key);
    if (it != state().displays.end()) return it->second;
    uint64_t name = createObject("display");
    state().displays[key] = name;
    return name;
}

bool isDefaultPlatformDisplay(EGLDisplay dpy) {
    for (const auto& d : state().displays)
        if (d.second == nameOf(dpy)) return d.first.first == 0;
    return false;
}

bool wantsWindow(const EGLint* attribs) {
    for (size_t i = 0; attribs && attribs[i] != EGL_NONE; i += 2)
        if (attribs[i] == EGL_SURFACE_TYPE && (attribs[i + 1] & EGL_WINDOW_BIT)) return true;
    return false;
}

EGLint matchingConfigs(const EGLint* attribs) {
    if (inj().noWindowConfigs && wantsWindow(attribs)) return 0;
    return std::max(0, inj().numConfigs);
}

// Configs are the handles 1..n; writes at most `size` of them.
EGLBoolean listConfigs(EGLint count, EGLConfig* configs, EGLint size, EGLint* numConfig) {
    if (numConfig == nullptr) {
        setEglError(EGL_BAD_PARAMETER);
        return EGL_FALSE;
    }
    if (configs == nullptr) {
        *numConfig = count;
        return EGL_TRUE;
    }
    EGLint n = std::min(count, std::max(0, size));
    for (EGLint i = 0; i < n; ++i) configs[i] = handle<EGLConfig>(i + 1);
    *numConfig = n;
    return EGL_TRUE;
}

EGLSurface createSurface(EGLConfig config, bool window) {
    if (config == nullptr) {
        setEglError(EGL_BAD_CONFIG);
        return EGL_NO_SURFACE;
    }
    if (inj().noSurface || (window && inj().noWindowConfigs)) {
        setEglError(inj().noSurface ? EGL_BAD_ALLOC : EGL_BAD_MATCH);
        return EGL_NO_SURFACE;
    }
    return handle<EGLSurface>(createObject("surface"));
}

// Destroys a live EGL object; a null handle or a dead one is an error, and a dead one counts
// as a double delete.
EGLBoolean destroyEglObject(const char* kind, uint64_t name, EGLint badHandleError) {
    if (name == 0 || !isLiveObject(kind, name)) {
        destroyObject(kind, name);
        setEglError(badHandleError);
        return EGL_FALSE;
    }
    destroyObject(kind, name);
    return EGL_TRUE;
}

EGLImageKHR createImage() {
    size_t nth = state().callCounts["eglCreateImageKHR"] + state().callCounts["eglCreateImage"];
    if (inj().nullImageFrom > 0 && nth >= static_cast<size_t>(inj().nullImageFrom)) {
        setEglError(EGL_BAD_PARAMETER);
        return EGL_NO_IMAGE_KHR;
    }
    return handle<EGLImageKHR>(createObject("image"));
}

EGLSyncKHR createSync() {
    if (inj().noSync) {
        setEglError(EGL_BAD_ATTRIBUTE);
        return EGL_NO_SYNC_KHR;
    }
    return handle<EGLSyncKHR>(createObject("sync"));
}

EGLint clientWait(EGLSyncKHR sync) {
    if (sync == EGL_NO_SYNC_KHR || !isLiveObject("sync", nameOf(sync))) {
        setEglError(EGL_BAD_PARAMETER);
        return EGL_FALSE;
    }
    if (inj().clientWaitError != EGL_SUCCESS) setEglError(inj().clientWaitError);
    return inj().clientWaitResult;
}

}  // namespace

namespace fakegl::detail {

// Extension entry points: reachable through eglGetProcAddress only, as on a real driver.
EGLImageKHR eglCreateImageKHR(EGLDisplay dpy, EGLContext ctx, EGLenum target, EGLClientBuffer buffer,
                              const EGLint* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglCreateImageKHR", dpy, ctx, target, buffer, attrib_list).attribs = copyAttribs(attrib_list);
    return createImage();
}

EGLBoolean eglDestroyImageKHR(EGLDisplay dpy, EGLImageKHR image) {
    Lock lock(state().mutex);
    recordLocked("eglDestroyImageKHR", dpy, image);
    return destroyEglObject("image", nameOf(image), EGL_BAD_PARAMETER);
}

EGLSyncKHR eglCreateSyncKHR(EGLDisplay dpy, EGLenum type, const EGLint* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglCreateSyncKHR", dpy, type, attrib_list).attribs = copyAttribs(attrib_list);
    return createSync();
}

EGLint eglClientWaitSyncKHR(EGLDisplay dpy, EGLSyncKHR sync, EGLint flags, EGLTimeKHR timeout) {
    Lock lock(state().mutex);
    recordLocked("eglClientWaitSyncKHR", dpy, sync, flags, timeout);
    return clientWait(sync);
}

EGLBoolean eglDestroySyncKHR(EGLDisplay dpy, EGLSyncKHR sync) {
    Lock lock(state().mutex);
    recordLocked("eglDestroySyncKHR", dpy, sync);
    return destroyEglObject("sync", nameOf(sync), EGL_BAD_PARAMETER);
}

EGLDisplay eglGetPlatformDisplayEXT(EGLenum platform, void* native_display, const EGLint* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglGetPlatformDisplayEXT", platform, native_display, attrib_list).attribs =
        copyAttribs(attrib_list);
    return handle<EGLDisplay>(displayFor(platform, reinterpret_cast<intptr_t>(native_display)));
}

}  // namespace fakegl::detail

namespace {

const ProcEntry kExtensionProcs[] = {
    {"eglCreateImageKHR", reinterpret_cast<ProcAddress>(fakegl::detail::eglCreateImageKHR)},
    {"eglDestroyImageKHR", reinterpret_cast<ProcAddress>(fakegl::detail::eglDestroyImageKHR)},
    {"eglCreateSyncKHR", reinterpret_cast<ProcAddress>(fakegl::detail::eglCreateSyncKHR)},
    {"eglClientWaitSyncKHR", reinterpret_cast<ProcAddress>(fakegl::detail::eglClientWaitSyncKHR)},
    {"eglDestroySyncKHR", reinterpret_cast<ProcAddress>(fakegl::detail::eglDestroySyncKHR)},
    {"eglGetPlatformDisplayEXT", reinterpret_cast<ProcAddress>(fakegl::detail::eglGetPlatformDisplayEXT)},
    {"glEGLImageTargetTexture2DOES", reinterpret_cast<ProcAddress>(fakegl::detail::glEGLImageTargetTexture2DOES)},
    {"glEGLImageTargetRenderbufferStorageOES",
     reinterpret_cast<ProcAddress>(fakegl::detail::glEGLImageTargetRenderbufferStorageOES)},
};

ProcAddress findProc(const char* name) {
    if (name == nullptr) return nullptr;
    for (const ProcEntry& e : kExtensionProcs)
        if (std::strcmp(e.name, name) == 0) return e.fn;
    for (size_t i = 0; i < kCoreProcCount; ++i)
        if (std::strcmp(kCoreProcs[i].name, name) == 0) return kCoreProcs[i].fn;
    return nullptr;
}

}  // namespace

extern "C" {

__eglMustCastToProperFunctionPointerType eglGetProcAddress(const char* procname) {
    Lock lock(state().mutex);
    recordLocked("eglGetProcAddress", procname).text = procname ? procname : "";
    return findProc(procname);
}

EGLDisplay eglGetDisplay(EGLNativeDisplayType display_id) {
    Lock lock(state().mutex);
    recordLocked("eglGetDisplay", display_id);
    if (inj().noDisplay) return EGL_NO_DISPLAY;
    return handle<EGLDisplay>(displayFor(0, reinterpret_cast<intptr_t>(display_id)));
}

EGLDisplay eglGetPlatformDisplay(EGLenum platform, void* native_display, const EGLAttrib* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglGetPlatformDisplay", platform, native_display, attrib_list).attribs =
        copyAttribs(attrib_list);
    return handle<EGLDisplay>(displayFor(platform, reinterpret_cast<intptr_t>(native_display)));
}

EGLBoolean eglInitialize(EGLDisplay dpy, EGLint* major, EGLint* minor) {
    Lock lock(state().mutex);
    recordLocked("eglInitialize", dpy, major, minor);
    if (!isLiveObject("display", nameOf(dpy))) {
        setEglError(EGL_BAD_DISPLAY);
        return EGL_FALSE;
    }
    if (inj().initializeFails || (inj().initializeFailsOnDefaultDisplay && isDefaultPlatformDisplay(dpy))) {
        setEglError(EGL_NOT_INITIALIZED);
        return EGL_FALSE;
    }
    state().initializedDisplays.insert(nameOf(dpy));
    if (major) *major = 1;
    if (minor) *minor = 4;
    return EGL_TRUE;
}

EGLBoolean eglTerminate(EGLDisplay dpy) {
    Lock lock(state().mutex);
    recordLocked("eglTerminate", dpy);
    state().initializedDisplays.erase(nameOf(dpy));
    return EGL_TRUE;
}

EGLBoolean eglChooseConfig(EGLDisplay dpy, const EGLint* attrib_list, EGLConfig* configs, EGLint config_size,
                           EGLint* num_config) {
    Lock lock(state().mutex);
    recordLocked("eglChooseConfig", dpy, attrib_list, configs, config_size, num_config).attribs =
        copyAttribs(attrib_list);
    return listConfigs(matchingConfigs(attrib_list), configs, config_size, num_config);
}

EGLBoolean eglGetConfigs(EGLDisplay dpy, EGLConfig* configs, EGLint config_size, EGLint* num_config) {
    Lock lock(state().mutex);
    recordLocked("eglGetConfigs", dpy, configs, config_size, num_config);
    return listConfigs(std::max(0, inj().numConfigs), configs, config_size, num_config);
}

EGLBoolean eglGetConfigAttrib(EGLDisplay dpy, EGLConfig config, EGLint attribute, EGLint* value) {
    Lock lock(state().mutex);
    recordLocked("eglGetConfigAttrib", dpy, config, attribute, value);
    if (config == nullptr || value == nullptr) {
        setEglError(config == nullptr ? EGL_BAD_CONFIG : EGL_BAD_PARAMETER);
        return EGL_FALSE;
    }
    switch (attribute) {
    case EGL_RED_SIZE: case EGL_GREEN_SIZE: case EGL_BLUE_SIZE: case EGL_ALPHA_SIZE: *value = 8; break;
    case EGL_BUFFER_SIZE: *value = 32; break;
    case EGL_SURFACE_TYPE: *value = EGL_PBUFFER_BIT | (inj().noWindowConfigs ? 0 : EGL_WINDOW_BIT); break;
    case EGL_RENDERABLE_TYPE: *value = EGL_OPENGL_ES2_BIT | EGL_OPENGL_ES3_BIT; break;
    case EGL_CONFIG_ID: *value = static_cast<EGLint>(nameOf(config)); break;
    default: *value = 0;
    }
    return EGL_TRUE;
}

EGLSurface eglCreatePbufferSurface(EGLDisplay dpy, EGLConfig config, const EGLint* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglCreatePbufferSurface", dpy, config, attrib_list).attribs = copyAttribs(attrib_list);
    return createSurface(config, false);
}

EGLSurface eglCreateWindowSurface(EGLDisplay dpy, EGLConfig config, EGLNativeWindowType win,
                                  const EGLint* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglCreateWindowSurface", dpy, config, win, attrib_list).attribs = copyAttribs(attrib_list);
    return createSurface(config, true);
}

EGLSurface eglCreatePlatformWindowSurface(EGLDisplay dpy, EGLConfig config, void* native_window,
                                          const EGLAttrib* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglCreatePlatformWindowSurface", dpy, config, native_window, attrib_list).attribs =
        copyAttribs(attrib_list);
    return createSurface(config, true);
}

EGLBoolean eglDestroySurface(EGLDisplay dpy, EGLSurface surface) {
    Lock lock(state().mutex);
    recordLocked("eglDestroySurface", dpy, surface);
    return destroyEglObject("surface", nameOf(surface), EGL_BAD_SURFACE);
}

EGLBoolean eglQuerySurface(EGLDisplay dpy, EGLSurface surface, EGLint attribute, EGLint* value) {
    Lock lock(state().mutex);
    recordLocked("eglQuerySurface", dpy, surface, attribute, value);
    if (!isLiveObject("surface", nameOf(surface)) || value == nullptr) {
        setEglError(EGL_BAD_SURFACE);
        return EGL_FALSE;
    }
    *value = (attribute == EGL_WIDTH || attribute == EGL_HEIGHT) ? kSurfaceSize : 0;
    return EGL_TRUE;
}

EGLContext eglCreateContext(EGLDisplay dpy, EGLConfig config, EGLContext share_context,
                            const EGLint* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglCreateContext", dpy, config, share_context, attrib_list).attribs = copyAttribs(attrib_list);
    if (inj().noContext) {
        setEglError(EGL_BAD_MATCH);
        return EGL_NO_CONTEXT;
    }
    return handle<EGLContext>(createObject("context"));
}

EGLBoolean eglDestroyContext(EGLDisplay dpy, EGLContext ctx) {
    Lock lock(state().mutex);
    recordLocked("eglDestroyContext", dpy, ctx);
    return destroyEglObject("context", nameOf(ctx), EGL_BAD_CONTEXT);
}

EGLBoolean eglMakeCurrent(EGLDisplay dpy, EGLSurface draw, EGLSurface read, EGLContext ctx) {
    Lock lock(state().mutex);
    recordLocked("eglMakeCurrent", dpy, draw, read, ctx);
    if (ctx != EGL_NO_CONTEXT) {
        if (inj().makeCurrentFails || !isLiveObject("context", nameOf(ctx))) {
            setEglError(inj().makeCurrentFails ? EGL_BAD_ACCESS : EGL_BAD_CONTEXT);
            return EGL_FALSE;
        }
    }
    state().currentContext = nameOf(ctx);
    return EGL_TRUE;
}

EGLContext eglGetCurrentContext(void) {
    Lock lock(state().mutex);
    recordLocked("eglGetCurrentContext");
    return handle<EGLContext>(state().currentContext);
}

const char* eglQueryString(EGLDisplay dpy, EGLint name) {
    Lock lock(state().mutex);
    recordLocked("eglQueryString", dpy, name);
    if (dpy == EGL_NO_DISPLAY && inj().noClientExtensions) {
        setEglError(EGL_BAD_DISPLAY);
        return nullptr;
    }
    switch (name) {
    case EGL_EXTENSIONS: return (dpy == EGL_NO_DISPLAY ? inj().eglClientExtensions : inj().eglExtensions).c_str();
    case EGL_VERSION: return "1.4 fakegl";
    case EGL_VENDOR: return "fakegl";
    case EGL_CLIENT_APIS: return "OpenGL_ES";
    }
    setEglError(EGL_BAD_PARAMETER);
    return nullptr;
}

EGLint eglGetError(void) {
    Lock lock(state().mutex);
    recordLocked("eglGetError");
    return std::exchange(state().eglError, EGL_SUCCESS);
}

EGLBoolean eglBindAPI(EGLenum api) {
    Lock lock(state().mutex);
    recordLocked("eglBindAPI", api);
    return EGL_TRUE;
}

EGLBoolean eglSwapBuffers(EGLDisplay dpy, EGLSurface surface) {
    Lock lock(state().mutex);
    recordLocked("eglSwapBuffers", dpy, surface);
    return EGL_TRUE;
}

EGLBoolean eglReleaseThread(void) {
    Lock lock(state().mutex);
    recordLocked("eglReleaseThread");
    state().currentContext = 0;
    return EGL_TRUE;
}

EGLImage eglCreateImage(EGLDisplay dpy, EGLContext ctx, EGLenum target, EGLClientBuffer buffer,
                        const EGLAttrib* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglCreateImage", dpy, ctx, target, buffer, attrib_list).attribs = copyAttribs(attrib_list);
    return createImage();
}

EGLBoolean eglDestroyImage(EGLDisplay dpy, EGLImage image) {
    Lock lock(state().mutex);
    recordLocked("eglDestroyImage", dpy, image);
    return destroyEglObject("image", nameOf(image), EGL_BAD_PARAMETER);
}

EGLSync eglCreateSync(EGLDisplay dpy, EGLenum type, const EGLAttrib* attrib_list) {
    Lock lock(state().mutex);
    recordLocked("eglCreateSync", dpy, type, attrib_list).attribs = copyAttribs(attrib_list);
    return createSync();
}

EGLint eglClientWaitSync(EGLDisplay dpy, EGLSync sync, EGLint flags, EGLTime timeout) {
    Lock lock(state().mutex);
    recordLocked("eglClientWaitSync", dpy, sync, flags, timeout);
    return clientWait(sync);
}

EGLBoolean eglDestroySync(EGLDisplay dpy, EGLSync sync) {
    Lock lock(state().mutex);
    recordLocked("eglDestroySync", dpy, sync);
    return destroyEglObject("sync", nameOf(sync), EGL_BAD_PARAMETER);
}

}  // extern "C"
