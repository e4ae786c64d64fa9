// Speed of the paths that matter: a trace point that is off, finding a slot by
// its number among thousands, and a synchronous echo over loopback.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "gateway/clapi_slots.h"
#include "gateway_emulator/emulator.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "kvl_eci.h"
#include "kvlclient.h"

static void TracePointOff(benchmark::State& state) {
    KVL_setAPITraceLevel(0);
    int value = 0;
    for (auto _ : state) {
        CLAPI_TRACE(DEBUG, 9999, "benchmark %d %s\n", ++value, "text");
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(TracePointOff);

static void SlotLookupByNumber(benchmark::State& state) {
    const int slots = static_cast<int>(state.range(0));
    slotTable table;
    memset(&table, 0, sizeof table);
    slotTableInit(&table);
    std::vector<clapiSlot*> taken;
    for (int i = 0; i < slots; ++i) {
        clapiSlot* s = nullptr;
        if (slotFind(&table, 0, &s) != 0) break;
        s->state = SLOT_SENT;
        taken.push_back(s);
    }
    int32_t number = 1;
    for (auto _ : state) {
        clapiSlot* found = nullptr;
        benchmark::DoNotOptimize(slotLookup(&table, number, &found));
        number = number % slots + 1;
    }
    for (clapiSlot* s : taken) slotFree(&table, s);
    slotTableRelease(&table);
}
BENCHMARK(SlotLookupByNumber)->Arg(16)->Arg(1024)->Arg(8192);

static void SyncEchoRoundTrip(benchmark::State& state) {
    kvlemu::Emulator emu;
    if (!emu.start("127.0.0.1", 0)) {
        state.SkipWithError("emulator did not start");
        return;
    }
    emu.setRecordLimit(0);
    gwTok token = nullptr;
    if (KVL_openRemoteGatewayConnection("127.0.0.1", emu.port(), &token, 10) != KVL_OK) {
        state.SkipWithError("no connection");
        return;
    }
    std::vector<char> commarea(static_cast<size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        EciParms parms;
        memset(&parms, 0, sizeof parms);
        parms.eci_call_type = ECI_SYNC;
        parms.eci_version = 6;
        memcpy(parms.eci_program, "ECHO    ", 8);
        parms.eci_commarea = commarea.data();
        parms.eci_commarea_length = static_cast<short>(commarea.size());
        if (KVL_ECI_Execute(token, &parms) != 0) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * 2);
    KVL_closeGatewayConnection(&token);
}
BENCHMARK(SyncEchoRoundTrip)->Arg(100)->Arg(32000)->UseRealTime();

int main(int argc, char** argv) {
    clapiProcessAttach();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    clapiProcessDetach();
    return 0;
}
