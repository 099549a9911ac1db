/* zor-shmem-example: an OpenSHMEM program whose PEs wait unevenly.
 *
 * Each of ROUNDS rounds: PE p computes (p + 1) steps of UNITS, puts COUNT
 * longs into its right neighbour's symmetric array, and all meet in
 * shmem_barrier_all. The PEs with less work wait there for the one with the
 * most: PE 0 waits the longest, the last PE the least.
 *
 *   zor-shmem-example [ROUNDS [UNITS [COUNT]]]   (defaults 8, 400, 16)
 *
 * On stdout, per PE, the calls it made:
 * "pe P calls shmem_long_put N shmem_barrier_all N". */
#include <shmem.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

static volatile uint64_t sink;
static long received[64];

__attribute__((noinline)) void compute(long units)
{
    uint64_t x = sink + 1;
    for (long u = 0; u < units; ++u)
        for (int i = 0; i < 4096; ++i) {
            x = x * 6364136223846793005ULL + 1442695040888963407ULL;
            x ^= x >> 29;
        }
    sink = x;
}

int main(int argc, char** argv)
{
    const long rounds = argc > 1 ? atol(argv[1]) : 8;
    const long units = argc > 2 ? atol(argv[2]) : 400;
    const long asked = argc > 3 ? atol(argv[3]) : 16;
    const int count = asked > 0 && asked <= 64 ? (int)asked : 16;
    shmem_init();
    const int me = shmem_my_pe();
    const int pes = shmem_n_pes();
    long values[64];
    long puts = 0, barriers = 0;
    for (long round = 0; round < rounds; ++round) {
        compute((me + 1) * units);
        for (int i = 0; i < count; ++i)
            values[i] = me + round + i;
        shmem_long_put(received, values, (size_t)count, (me + 1) % pes);
        ++puts;
        shmem_barrier_all();
        ++barriers;
    }
    printf("pe %d calls shmem_long_put %ld shmem_barrier_all %ld\n", me, puts, barriers);
    fflush(stdout);
    const int left = (me + pes - 1) % pes;
    const int ok = received[0] == left + rounds - 1;
    shmem_finalize();
    return ok ? 0 : 1;
}
