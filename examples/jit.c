/* zor-jit: a program that makes its hot code as it runs, as a JIT compiler
 * does, and names it in /tmp/perf-PID.map, the map that such runtimes
 * write for profilers. Two pieces of generated code, jit_loop_three and
 * jit_loop_one, share the time 3 : 1. Beside them it runs a function of its
 * own, remapped_loop, through a second mapping of its file, as a runtime
 * that copies its built-in code near the code it makes (V8 does) runs it,
 * for as long as jit_loop_one, and unmaps before it ends, as V8 does.
 *
 *   zor-jit [--seconds S]   run for S seconds (default 2)
 *
 * The map is left behind when the program ends, as runtimes leave theirs. */
#define _GNU_SOURCE
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

typedef uint64_t (*loop_fn)(uint64_t);

/* x86-64: count rdi down to zero, return 0 in rax. */
static const unsigned char LOOP[] = {
    0x48, 0x89, 0xf8, /* mov %rdi, %rax */
    0x48, 0xff, 0xc8, /* 1: dec %rax */
    0x75, 0xfb,       /* jnz 1b */
    0xc3,             /* ret */
};

/* Nothing but registers, so that it runs as well from another address. */
__attribute__((noinline, aligned(64))) uint64_t remapped_loop(uint64_t n)
{
    while (n)
        __asm__ volatile("dec %0" : "+r"(n));
    return n;
}

/* remapped_loop as a second, private mapping of this program's file shows
 * it; null where that can't be made. */
static loop_fn remap_own_code(void)
{
    const unsigned long address = (unsigned long)(void*)remapped_loop;
    const long page = sysconf(_SC_PAGESIZE);
    FILE* maps = fopen("/proc/self/maps", "r");
    char line[512];
    unsigned long start = 0, end = 0, offset = 0;
    int found = 0;
    while (maps && !found && fgets(line, sizeof line, maps))
        found = sscanf(line, "%lx-%lx %*s %lx", &start, &end, &offset) == 3 && start <= address && address < end;
    if (maps)
        fclose(maps);
    if (!found)
        return NULL;
    const unsigned long from = address & ~(unsigned long)(page - 1);
    const int fd = open("/proc/self/exe", O_RDONLY);
    if (fd < 0)
        return NULL;
    unsigned char* copy = mmap(NULL, 2 * page, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, offset + (from - start));
    close(fd);
    return copy == MAP_FAILED ? NULL : (loop_fn)(void*)(copy + (address - from));
}

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
}

int main(int argc, char** argv)
{
    double seconds = 2;
    if (argc == 3 && strcmp(argv[1], "--seconds") == 0)
        seconds = atof(argv[2]);
#if !defined(__x86_64__)
    fprintf(stderr, "zor-jit makes x86-64 code only\n");
    return 1;
#endif
    /* Two pieces apart, so that each has addresses of its own. */
    unsigned char* code = mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (code == MAP_FAILED) {
        perror("mmap");
        return 1;
    }
    memcpy(code, LOOP, sizeof LOOP);
    memcpy(code + 4096, LOOP, sizeof LOOP);
    if (mprotect(code, 8192, PROT_READ | PROT_EXEC) != 0) {
        perror("mprotect");
        return 1;
    }
    char path[64];
    snprintf(path, sizeof path, "/tmp/perf-%d.map", (int)getpid());
    FILE* map = fopen(path, "w");
    if (!map) {
        perror(path);
        return 1;
    }
    fprintf(map, "%lx %zx jit_loop_three\n", (unsigned long)code, sizeof LOOP);
    fprintf(map, "%lx %zx jit_loop_one\n", (unsigned long)(code + 4096), sizeof LOOP);
    fclose(map);

    const loop_fn three = (loop_fn)(void*)code, one = (loop_fn)(void*)(code + 4096);
    const loop_fn remapped = remap_own_code();
    if (!remapped) {
        fprintf(stderr, "zor-jit: can't map its own code again\n");
        return 1;
    }
    const double end = now() + seconds;
    uint64_t sum = 0;
    while (now() < end) {
        sum += three(3000000);
        sum += one(1000000);
        sum += remapped(1000000);
    }
    const long page = sysconf(_SC_PAGESIZE);
    munmap((void*)((unsigned long)(void*)remapped & ~(unsigned long)(page - 1)), 2 * page);
    printf("zor-jit: done (%llu)\n", (unsigned long long)sum);
    return 0;
}
