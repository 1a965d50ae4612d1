// The one process-wide lock: reads from one, two and four threads, each on a
// collection of its own (of one tag, or of every tag in turn), and a change
// travelling along a chain of ten collections.
#include <benchmark/benchmark.h>

#include <mutex>
#include <string>
#include <vector>

#include "coll.h"

namespace {

uint32_t g_colls[4];
std::once_flag g_once;

void MakeCollections() {
  for (uint32_t &h : g_colls) {
    h = collOpen(nullptr);
    for (int i = 0; i < 100; ++i) collSetNumeric(h, ("tag" + std::to_string(i)).c_str(), i);
  }
}

void BM_Lock_ReadOwnCollection(benchmark::State &state) {
  std::call_once(g_once, MakeCollections);
  uint32_t h = g_colls[state.thread_index() % 4];
  for (auto _ : state) benchmark::DoNotOptimize(collGetNumeric(h, "tag7"));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Lock_ReadOwnCollection)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

// The same with every tag in turn: past the tag cache, through the index.
void BM_Lock_ReadOwnCollectionCycling(benchmark::State &state) {
  std::call_once(g_once, MakeCollections);
  uint32_t h = g_colls[state.thread_index() % 4];
  std::vector<std::string> tags;
  for (int i = 0; i < 100; ++i) tags.push_back("tag" + std::to_string(i));
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(collGetNumeric(h, tags[i].c_str()));
    if (++i == tags.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Lock_ReadOwnCollectionCycling)->Threads(1)->Threads(2)->UseRealTime();

void BM_Lock_PropagationChainOf10(benchmark::State &state) {
  uint32_t chain[10];
  for (uint32_t &h : chain) h = collOpen(nullptr);
  for (int i = 0; i + 1 < 10; ++i) collRequestPropagate(chain[i], chain[i + 1], 1);
  int32_t v = 0;
  for (auto _ : state) collSetNumeric(chain[0], "value", ++v);
  if (collGetNumeric(chain[9], "value") != v) state.SkipWithError("the change did not reach the end");
  for (uint32_t h : chain) collClose(h);
}
BENCHMARK(BM_Lock_PropagationChainOf10);

}  // namespace
