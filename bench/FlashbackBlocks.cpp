// Blocks per second taken back to a save point, against a plain copy of the
// same blocks in the same run. Each block is 16 KiB with 100 rows; one row
// in ten changed after the save point, through a chain of 1 to 5 versions.
// The rollback is measured as the persistence pass meets it: a copy of the
// live block, then the rollback of the copy.
#include "PeerRollback.h"

#include "TalvorFlashback.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

using talvorpeer::CPeerBlock;
using talvorpeer::CPeerRollbackArea;

namespace {

const int BLOCK_SIZE = 16384;
const int BLOCKS = 256;
const int ROWS = 100;
const int VALUE_SIZE = 100;
const UINT AREA_SIZE = 64u << 20;
const long long SAVE_POINT = 50;

struct BenchData {
    std::vector<BYTE> m_vArea;
    std::vector<BYTE> m_vBlocks;
    BenchData() : m_vArea(AREA_SIZE), m_vBlocks((size_t)BLOCKS * BLOCK_SIZE)
    {
        std::mt19937 rng(7);
        CPeerRollbackArea area(m_vArea.data(), AREA_SIZE);
        area.Format();
        for (int b = 0; b < BLOCKS; b++) {
            CPeerBlock block(Block(b), BLOCK_SIZE);
            block.Format((UINT)(b + 1), 2, ROWS);
            for (int r = 0; r < ROWS; r++) {
                std::string strValue(VALUE_SIZE, (char)('a' + r % 26));
                int nRow = block.AddRow((short)(r + 1), 10, (const BYTE*)strValue.data(), VALUE_SIZE, 64);
                if (r % 10 != 3) continue;
                for (int v = 1 + (int)(rng() % 5); v > 0; v--) {
                    strValue[0]++;
                    block.UpdateRow(area, nRow, SAVE_POINT + 100 - v * 10, (const BYTE*)strValue.data(), VALUE_SIZE);
                }
            }
        }
    }
    LPBYTE Block(int b) { return m_vBlocks.data() + (size_t)b * BLOCK_SIZE; }
};

BenchData& Data()
{
    static BenchData s_data;
    return s_data;
}

void BM_FlashbackBlocks(benchmark::State& state)
{
    BenchData& data = Data();
    CTalvorFlashback flashback;
    flashback.SetRollbackArea(data.m_vArea.data(), AREA_SIZE);
    std::vector<BYTE> vCopy(BLOCK_SIZE);
    int b = 0;
    for (auto _ : state) {
        memcpy(vCopy.data(), data.Block(b), BLOCK_SIZE);
        int rc = flashback.FlashbackData(2, b + 1, BLOCK_SIZE, SAVE_POINT, vCopy.data(), data.Block(b));
        if (rc != 0) state.SkipWithError("rollback failed");
        benchmark::DoNotOptimize(vCopy.data());
        b = (b + 1) % BLOCKS;
    }
    flashback.SetRollbackArea(nullptr, 0);
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * BLOCK_SIZE);
}
BENCHMARK(BM_FlashbackBlocks);

void BM_PlainBlockCopy(benchmark::State& state)
{
    BenchData& data = Data();
    std::vector<BYTE> vCopy(BLOCK_SIZE);
    int b = 0;
    for (auto _ : state) {
        memcpy(vCopy.data(), data.Block(b), BLOCK_SIZE);
        benchmark::DoNotOptimize(vCopy.data());
        benchmark::ClobberMemory();
        b = (b + 1) % BLOCKS;
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * BLOCK_SIZE);
}
BENCHMARK(BM_PlainBlockCopy);

} // namespace

BENCHMARK_MAIN();
