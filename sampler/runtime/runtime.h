/* What the C interposers (interpose.c) and the C++ core of the sampler share.
 * Nothing here is exported from the library. */
#ifndef ZOR_SAMPLER_RUNTIME_H
#define ZOR_SAMPLER_RUNTIME_H

#include <pthread.h>
#include <signal.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZS_HIDDEN __attribute__((visibility("hidden")))
#define ZS_TLS __thread __attribute__((tls_model("initial-exec")))

/* Handlers that ran on this thread: the sampler's own, and the program's.
 * A system call interrupted while only the first moved is restarted by the
 * interposers. */
extern ZS_TLS unsigned int zs_our_signal_count ZS_HIDDEN;
extern ZS_TLS unsigned int zs_target_signal_count ZS_HIDDEN;

/* The functions that the interposers stand in front of, found with
 * dlsym(RTLD_NEXT) on first use. */
int zs_real_sigaction(int sig, const struct sigaction* act, struct sigaction* old) ZS_HIDDEN;
int zs_real_pthread_sigmask(int how, const sigset_t* set, sigset_t* old) ZS_HIDDEN;
int zs_real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                           void* arg) ZS_HIDDEN;
int zs_real_nanosleep(const struct timespec* req, struct timespec* rem) ZS_HIDDEN;

/* The sampler's signal, and whether an instance of it was sent by the
 * sampler (the others belong to the program). */
int zs_sampler_signal(void) ZS_HIDDEN;
int zs_is_sampler_instance(int sig, const siginfo_t* info) ZS_HIDDEN;

/* Whether the program believes that this thread blocks the sampler's
 * signal. It never really does: the mask functions keep the signal out of
 * every mask they set, and tell the program what it asked for. */
extern ZS_TLS int zs_program_blocks_ours ZS_HIDDEN;
/* Set while the sampler's own handler runs on this thread: mask changes
 * made there (libunwind blocks signals around some look-ups) are not the
 * program's and pass unchanged. */
int zs_in_sampler_handler(void) ZS_HIDDEN;
/* Set while the sampler readies libunwind on this thread, outside its
 * handler: descriptors made then are the sampler's too. */
extern ZS_TLS int zs_readying_unwinder ZS_HIDDEN;
/* Unblocks the sampler's signal in the calling thread. */
void zs_unblock_ours(void) ZS_HIDDEN;

/* sigaction as the program sees it: its own dispositions, with the
 * sampler's signal kept for the sampler. */
int zs_sigaction(int sig, const struct sigaction* act, struct sigaction* old) ZS_HIDDEN;

/* pthread_create with the new thread made known to the sampler. */
int zs_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg) ZS_HIDDEN;

/* pthread_exit: the sampler's part of the thread's end. */
void zs_before_thread_exit(void) ZS_HIDDEN;

/* The environment for exec and spawn, and the results written before an
 * exec: see process.cpp. */
char** zs_prepare_exec(const char* file, int searchPath, char* const envp[], int sameProcess) ZS_HIDDEN;

/* _exit and _Exit: the results are written first, as at a normal exit. */
void zs_before_immediate_exit(void) ZS_HIDDEN;
/* Notes the objects loaded now, before dlclose may unload one of them. */
void zs_before_unload(void) ZS_HIDDEN;
/* After mmap made a mapping of `length` bytes at `address` from `offset` in
 * the file of `fd`: a mapping of code is kept for the module list, since a
 * runtime may map code of its own file a second time and unmap it before
 * the end (V8 does). */
void zs_note_file_mapping(void* address, size_t length, int prot, int fd, long long offset) ZS_HIDDEN;

#ifdef __cplusplus
}
#endif

#endif
