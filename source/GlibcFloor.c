/* Keeps Kavrin.so within glibc 2.28 (RHEL and Rocky Linux 8, the platform of current Maya
 * releases) although it is linked against a newer glibc.
 *
 * Newer glibc releases gave some functions new symbol versions (the threads and loader functions
 * that moved into libc in 2.34, the stat family in 2.33, pow in 2.29) or added them (arc4random in
 * 2.36, __libc_single_threaded in 2.32). Our own code, the OpenMP runtime and the static C++
 * runtime call them by plain name, so the link would bind the new versions. Each function below
 * takes that name inside the plug-in (hidden: nothing here is exported) and forwards to the old
 * version, which every glibc since keeps for old programs; on glibc 2.28 the threads and loader
 * functions are found in libpthread.so.0 and libdl.so.2, which the plug-in names as needed.
 * tools/check-module.sh fails the module when a newer version slips in. */

#include <stddef.h>
#include <stdint.h>

// Decision (behaviour note "Plug-in: glibc 2.28 floor")

/* Defines `name` with the given parameters, calling name@version. */
#define KAVRIN_FORWARD(ret, name, version, params, args)          \
    ret kavrin_old_##name params;                                 \
    __asm__(".symver kavrin_old_" #name ", " #name "@" version);  \
    ret name params { return kavrin_old_##name args; }

KAVRIN_FORWARD(int, pthread_create, "GLIBC_2.2.5", (void* t, const void* attr, void* (*run)(void*), void* arg),
               (t, attr, run, arg))
KAVRIN_FORWARD(int, pthread_join, "GLIBC_2.2.5", (unsigned long t, void** result), (t, result))
KAVRIN_FORWARD(int, pthread_detach, "GLIBC_2.2.5", (unsigned long t), (t))
KAVRIN_FORWARD(int, pthread_once, "GLIBC_2.2.5", (int* once, void (*run)(void)), (once, run))
KAVRIN_FORWARD(int, pthread_key_create, "GLIBC_2.2.5", (unsigned* key, void (*destroy)(void*)), (key, destroy))
KAVRIN_FORWARD(int, pthread_key_delete, "GLIBC_2.2.5", (unsigned key), (key))
KAVRIN_FORWARD(int, pthread_setspecific, "GLIBC_2.2.5", (unsigned key, const void* value), (key, value))
KAVRIN_FORWARD(int, pthread_attr_getstacksize, "GLIBC_2.2.5", (const void* attr, size_t* size), (attr, size))
KAVRIN_FORWARD(int, pthread_attr_setstacksize, "GLIBC_2.2.5", (void* attr, size_t size), (attr, size))
KAVRIN_FORWARD(int, pthread_attr_setaffinity_np, "GLIBC_2.3.4", (void* attr, size_t size, const void* cpus),
               (attr, size, cpus))
KAVRIN_FORWARD(int, pthread_getaffinity_np, "GLIBC_2.3.4", (unsigned long t, size_t size, void* cpus), (t, size, cpus))
KAVRIN_FORWARD(int, pthread_setaffinity_np, "GLIBC_2.3.4", (unsigned long t, size_t size, const void* cpus),
               (t, size, cpus))
KAVRIN_FORWARD(void*, dlopen, "GLIBC_2.2.5", (const char* file, int mode), (file, mode))
KAVRIN_FORWARD(void*, dlsym, "GLIBC_2.2.5", (void* handle, const char* name), (handle, name))
KAVRIN_FORWARD(int, dlclose, "GLIBC_2.2.5", (void* handle), (handle))
KAVRIN_FORWARD(char*, dlerror, "GLIBC_2.2.5", (void), ())
KAVRIN_FORWARD(double, pow, "GLIBC_2.2.5", (double x, double y), (x, y))

/* fstat64 was an inline call of __fxstat64 with the structure's version (1 on x86-64). */
int kavrin_old___fxstat64(int version, int fd, void* buf);
__asm__(".symver kavrin_old___fxstat64, __fxstat64@GLIBC_2.2.5");
int fstat64(int fd, void* buf) { return kavrin_old___fxstat64(1, fd, buf); }

/* "The process may have several threads": the C++ runtime then always uses atomic reference
 * counts, which is what it did before glibc 2.32 gave it a way to know better. */
char __libc_single_threaded = 0;

/* A source of std::random_device, which the plug-in never constructs but the C++ runtime links.
 * getentropy (glibc 2.25) cannot fail for 4 bytes on a kernel with getrandom (Linux 3.17, 2014). */
int getentropy(void* buffer, size_t length);
uint32_t arc4random(void) {
    uint32_t value = 0;
    if (getentropy(&value, sizeof value) != 0) value = 0;
    return value;
}
