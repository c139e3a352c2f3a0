// EGL entry points with behaviour: displays, configs, surfaces, contexts, images, fences.
#include "fakegl_internal.h"

#include <algorithm>
#include <cstring>

using namespace fakegl::detail;

namespace {

EGLBoolean fail(EGLint error) {
    state().eglError = error;
    return EGL_FALSE;
}

EGLDisplay displayFor(EGLenum platform, intptr_t native) {
    uint64_t& name = state().displays[{platform, native}];
    if (name == 0) name = createObject("display");
    return handle<EGLDisplay>(name);
}

bool isDefaultPlatformDisplay(EGLDisplay dpy) {
    for (const auto& d : state().displays)
        if (d.second == nameOf(dpy)) return d.first.first == 0;
    return false;
}

// Destroys a live EGL object; a null handle or a dead one is an error, and a dead one counts
// as a double delete.
EGLBoolean destroyEglObject(const char* kind, uint64_t name, EGLint badHandleError) {
    const bool live = fakegl::isLive(kind, name);
    destroyObject(kind, name);
    return live ? EGL_TRUE : fail(badHandleError);
}

// Extension entry points: reachable through eglGetProcAddress only, as on a real driver.
EGLImageKHR eglCreateImageKHR(EGLDisplay dpy, EGLContext ctx, EGLenum target, EGLClientBuffer buffer,
                              const EGLint* attrib_list) {
    record("eglCreateImageKHR", dpy, ctx, target, buffer, attrib_list).attribs = copyAttribs(attrib_list);
    const int from = inj().nullImageFrom;
    if (from > 0 && state().callCounts["eglCreateImageKHR"] >= static_cast<size_t>(from))
        return fail(EGL_BAD_PARAMETER), EGL_NO_IMAGE_KHR;
    return handle<EGLImageKHR>(createObject("image"));
}

EGLBoolean eglDestroyImageKHR(EGLDisplay dpy, EGLImageKHR image) {
    record("eglDestroyImageKHR", dpy, image);
    return destroyEglObject("image", nameOf(image), EGL_BAD_PARAMETER);
}

EGLSyncKHR eglCreateSyncKHR(EGLDisplay dpy, EGLenum type, const EGLint* attrib_list) {
    record("eglCreateSyncKHR", dpy, type, attrib_list).attribs = copyAttribs(attrib_list);
    if (inj().noSync) return fail(EGL_BAD_ATTRIBUTE), EGL_NO_SYNC_KHR;
    return handle<EGLSyncKHR>(createObject("sync"));
}

EGLint eglClientWaitSyncKHR(EGLDisplay dpy, EGLSyncKHR sync, EGLint flags, EGLTimeKHR timeout) {
    record("eglClientWaitSyncKHR", dpy, sync, flags, timeout);
    return fakegl::isLive("sync", nameOf(sync)) ? inj().clientWaitResult : fail(EGL_BAD_PARAMETER);
}

EGLBoolean eglDestroySyncKHR(EGLDisplay dpy, EGLSyncKHR sync) {
    record("eglDestroySyncKHR", dpy, sync);
    return destroyEglObject("sync", nameOf(sync), EGL_BAD_PARAMETER);
}

// Devices are the handles 1..n; writes at most `max_devices` of them.
EGLBoolean eglQueryDevicesEXT(EGLint max_devices, EGLDeviceEXT* devices, EGLint* num_devices) {
    record("eglQueryDevicesEXT", max_devices, devices, num_devices);
    if (num_devices == nullptr || (devices != nullptr && max_devices <= 0)) return fail(EGL_BAD_PARAMETER);
    const EGLint count = devices ? std::min(max_devices, inj().devices) : inj().devices;
    for (EGLint i = 0; devices && i < count; ++i) devices[i] = handle<EGLDeviceEXT>(static_cast<uint64_t>(i) + 1);
    *num_devices = count;
    return EGL_TRUE;
}

using ProcAddress = __eglMustCastToProperFunctionPointerType;
const std::pair<const char*, ProcAddress> kExtensionProcs[] = {
    {"eglCreateImageKHR", reinterpret_cast<ProcAddress>(eglCreateImageKHR)},
    {"eglDestroyImageKHR", reinterpret_cast<ProcAddress>(eglDestroyImageKHR)},
    {"eglCreateSyncKHR", reinterpret_cast<ProcAddress>(eglCreateSyncKHR)},
    {"eglClientWaitSyncKHR", reinterpret_cast<ProcAddress>(eglClientWaitSyncKHR)},
    {"eglDestroySyncKHR", reinterpret_cast<ProcAddress>(eglDestroySyncKHR)},
    {"eglQueryDevicesEXT", reinterpret_cast<ProcAddress>(eglQueryDevicesEXT)},
    {"glEGLImageTargetTexture2DOES", reinterpret_cast<ProcAddress>(glEGLImageTargetTexture2DOES)},
};

}  // namespace

extern "C" {

__eglMustCastToProperFunctionPointerType eglGetProcAddress(const char* procname) {
    record("eglGetProcAddress", procname).text = procname ? procname : "";
    for (const auto& [name, fn] : kExtensionProcs)
        if (procname && std::strcmp(name, procname) == 0) return fn;
    return nullptr;
}

EGLDisplay eglGetDisplay(EGLNativeDisplayType display_id) {
    record("eglGetDisplay", display_id);
    return inj().noDisplay ? EGL_NO_DISPLAY : displayFor(0, reinterpret_cast<intptr_t>(display_id));
}

EGLDisplay eglGetPlatformDisplay(EGLenum platform, void* native_display, const EGLAttrib* attrib_list) {
    record("eglGetPlatformDisplay", platform, native_display, attrib_list).attribs = copyAttribs(attrib_list);
    return displayFor(platform, reinterpret_cast<intptr_t>(native_display));
}

EGLBoolean eglInitialize(EGLDisplay dpy, EGLint* major, EGLint* minor) {
    record("eglInitialize", dpy, major, minor);
    if (!fakegl::isLive("display", nameOf(dpy))) return fail(EGL_BAD_DISPLAY);
    if (inj().initializeFails || (inj().initializeFailsOnDefaultDisplay && isDefaultPlatformDisplay(dpy)))
        return fail(EGL_NOT_INITIALIZED);
    if (major) *major = 1;
    if (minor) *minor = 4;
    return EGL_TRUE;
}

// Configs are the handles 1..n; writes at most `config_size` of them.
EGLBoolean eglChooseConfig(EGLDisplay dpy, const EGLint* attrib_list, EGLConfig* configs, EGLint config_size,
                           EGLint* num_config) {
    fakegl::Call& call = record("eglChooseConfig", dpy, attrib_list, configs, config_size, num_config);
    call.attribs = copyAttribs(attrib_list);
    if (num_config == nullptr) return fail(EGL_BAD_PARAMETER);
    const bool wantsWindow = fakegl::attribValue(call, EGL_SURFACE_TYPE, 0) & EGL_WINDOW_BIT;
    const EGLint count = inj().noWindowConfigs && wantsWindow ? 0 : std::max(0, inj().numConfigs);
    *num_config = configs == nullptr ? count : std::min(count, std::max(0, config_size));
    for (EGLint i = 0; configs != nullptr && i < *num_config; ++i) configs[i] = handle<EGLConfig>(i + 1);
    return EGL_TRUE;
}

EGLBoolean eglGetConfigAttrib(EGLDisplay dpy, EGLConfig config, EGLint attribute, EGLint* value) {
    record("eglGetConfigAttrib", dpy, config, attribute, value);
    if (config == nullptr) return fail(EGL_BAD_CONFIG);
    const EGLint channels[] = {EGL_RED_SIZE, EGL_GREEN_SIZE, EGL_BLUE_SIZE, EGL_ALPHA_SIZE};
    *value = std::count(std::begin(channels), std::end(channels), attribute) ? 8 : 0;
    return EGL_TRUE;
}

EGLSurface eglCreatePbufferSurface(EGLDisplay dpy, EGLConfig config, const EGLint* attrib_list) {
    record("eglCreatePbufferSurface", dpy, config, attrib_list).attribs = copyAttribs(attrib_list);
    if (config == nullptr) return fail(EGL_BAD_CONFIG), EGL_NO_SURFACE;
    return handle<EGLSurface>(createObject("surface"));
}

EGLBoolean eglDestroySurface(EGLDisplay dpy, EGLSurface surface) {
    record("eglDestroySurface", dpy, surface);
    return destroyEglObject("surface", nameOf(surface), EGL_BAD_SURFACE);
}

EGLBoolean eglQuerySurface(EGLDisplay dpy, EGLSurface surface, EGLint attribute, EGLint* value) {
    record("eglQuerySurface", dpy, surface, attribute, value);
    if (!fakegl::isLive("surface", nameOf(surface))) return fail(EGL_BAD_SURFACE);
    *value = attribute == EGL_WIDTH || attribute == EGL_HEIGHT ? 100 : 0;
    return EGL_TRUE;
}

EGLContext eglCreateContext(EGLDisplay dpy, EGLConfig config, EGLContext share_context, const EGLint* attrib_list) {
    record("eglCreateContext", dpy, config, share_context, attrib_list).attribs = copyAttribs(attrib_list);
    if (inj().noContext) return fail(EGL_BAD_MATCH), EGL_NO_CONTEXT;
    return handle<EGLContext>(createObject("context"));
}

EGLBoolean eglDestroyContext(EGLDisplay dpy, EGLContext ctx) {
    record("eglDestroyContext", dpy, ctx);
    return destroyEglObject("context", nameOf(ctx), EGL_BAD_CONTEXT);
}

EGLBoolean eglMakeCurrent(EGLDisplay dpy, EGLSurface draw, EGLSurface read, EGLContext ctx) {
    record("eglMakeCurrent", dpy, draw, read, ctx);
    if (ctx == EGL_NO_CONTEXT) return EGL_TRUE;
    if (inj().makeCurrentFails) return fail(EGL_BAD_ACCESS);
    return fakegl::isLive("context", nameOf(ctx)) ? EGL_TRUE : fail(EGL_BAD_CONTEXT);
}

const char* eglQueryString(EGLDisplay dpy, EGLint name) {
    record("eglQueryString", dpy, name);
    if (dpy == EGL_NO_DISPLAY && inj().noClientExtensions) return fail(EGL_BAD_DISPLAY), nullptr;
    if (name == EGL_EXTENSIONS) return (dpy == EGL_NO_DISPLAY ? inj().eglClientExtensions : inj().eglExtensions).c_str();
    return "fakegl";
}

EGLint eglGetError(void) {
    record("eglGetError");
    return std::exchange(state().eglError, EGL_SUCCESS);
}

}  // extern "C"
