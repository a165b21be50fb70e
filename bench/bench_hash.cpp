// Flow hash micro-benchmarks: lookup hit (both directions), miss, and insertion, at table sizes
// that fit in cache (10 thousand flows) and that do not (1 million flows).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "quelm_flow.h"
#include "quelm_hash.h"
#include "quelm_table.h"

namespace {

struct Tuple {
    uint32_t saddr, daddr;
    uint16_t sport, dport;
};

// Distinct IPv4 TCP 5-tuples spread over a /8, as a busy link would show them.
std::vector<Tuple> make_tuples(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<Tuple> out(n);
    for (size_t i = 0; i < n; i++) {
        out[i] = {uint32_t(0x0A000000u | (rng() & 0xFFFFFF)),
                  uint32_t(0xC0A80000u | (rng() & 0xFFFF)), uint16_t(1024 + rng() % 60000),
                  uint16_t(i % 7 == 0 ? 53 : 443)};
    }
    return out;
}

struct Fixture {
    explicit Fixture(size_t n) : flows(make_tuples(n, 1)), misses(make_tuples(n, 2)) {
        table = static_cast<quelm_table *>(calloc(1, sizeof(quelm_table)));
        hash = quelm_hash_alloc(utils_pow2(uint32_t(n)), 30, 0, 0);
        header = {{1000, 0}, 60, 60};
        for (const Tuple &t : flows) {
            fill(t, false);
            quelm_flow *f = quelm_flow_new(&info, nullptr, 0);
            quelm_hash_add(hash, f);
        }
        order.resize(n);
        for (size_t i = 0; i < n; i++)
            order[i] = uint32_t(i);
        std::shuffle(order.begin(), order.end(), std::mt19937(3));
    }
    ~Fixture() {
        quelm_hash_free(hash);
        free(table);
    }
    void fill(const Tuple &t, bool reverse) {
        info.header = &header;
        info.is_ipv4 = 1;
        info.l4_protocol = 6;
        info.saddr_v4 = reverse ? t.daddr : t.saddr;
        info.daddr_v4 = reverse ? t.saddr : t.daddr;
        info.sport = reverse ? t.dport : t.sport;
        info.dport = reverse ? t.sport : t.dport;
        info.hash_seed = t.saddr + t.daddr;
        quelm_hash_compute_hash_index(hash, &info);
    }
    std::vector<Tuple> flows, misses;
    std::vector<uint32_t> order;
    quelm_table *table;
    quelm_hash *hash;
    quelm_packet_header header;
    quelm_packet_info info{};
};

void run_lookups(benchmark::State &state, bool reverse, bool miss) {
    Fixture fx(size_t(state.range(0)));
    const std::vector<Tuple> &keys = miss ? fx.misses : fx.flows;
    size_t i = 0, found = 0;
    uint32_t dir;
    for (auto _ : state) {
        fx.fill(keys[fx.order[i]], reverse);
        found += quelm_hash_find(fx.table, fx.hash, &fx.info, &dir) != nullptr;
        if (++i == fx.order.size()) i = 0;
    }
    benchmark::DoNotOptimize(found);
    state.counters["flows"] = double(fx.hash->num_flows);
    state.counters["max_walk"] = double(fx.hash->max_bucket_walk);
}

void BM_LookupHit(benchmark::State &state) {
    run_lookups(state, false, false);
}
void BM_LookupHitReverse(benchmark::State &state) {
    run_lookups(state, true, false);
}
void BM_LookupMiss(benchmark::State &state) {
    run_lookups(state, false, true);
}

// Flow creation plus insertion, as a packet of a new flow costs it; the hash is rebuilt (untimed)
// whenever it is full.
void BM_Insert(benchmark::State &state) {
    const size_t n = size_t(state.range(0));
    Fixture fx(0);
    quelm_hash_free(fx.hash);
    fx.hash = quelm_hash_alloc(utils_pow2(uint32_t(n)), 30, 0, 0);
    const std::vector<Tuple> tuples = make_tuples(n, 4);
    size_t i = 0;
    for (auto _ : state) {
        fx.fill(tuples[i], false);
        quelm_flow *f = quelm_flow_new(&fx.info, nullptr, 0);
        quelm_hash_add(fx.hash, f);
        if (++i == n) {
            state.PauseTiming();
            quelm_hash_free(fx.hash);
            fx.hash = quelm_hash_alloc(utils_pow2(uint32_t(n)), 30, 0, 0);
            i = 0;
            state.ResumeTiming();
        }
    }
}

BENCHMARK(BM_LookupHit)->Arg(10000)->Arg(1000000);
BENCHMARK(BM_LookupHitReverse)->Arg(10000)->Arg(1000000);
BENCHMARK(BM_LookupMiss)->Arg(10000)->Arg(1000000);
BENCHMARK(BM_Insert)->Arg(10000)->Arg(1000000);

}  // namespace
