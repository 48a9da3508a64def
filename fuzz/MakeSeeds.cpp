// MakeSeeds.cpp — writes the seed corpora of the fuzz targets from what the
// database maker and the engine stand-in make: a new database (the maker),
// its data file with blocks and rows (the stand-in's image helpers), a
// block taken through updates with its rollback area (the stand-in's rows),
// a redo ring of the stand-in's records and the group files the daemon's
// writer makes of it, sealed by its stop for the archiver, and the engine's
// answers to channel command 3 over the maker's files; for the shared
// cache, the head area of a used cache as the daemon's own cache object
// leaves it (fuzz/FuzzCache.h) and ring entries and load slots as the
// engine fills them; whole full and incremental backup files and a
// place-holder, as the backup tests make them; the byte streams of plans
// that the plan buffer builds. Run by fuzz/make-corpus;
// argv[1] is fuzz/corpus.
#include "BackupIncrementFixture.h"
#include "BaseBson.h"
#include "CacheFileHeadArea.h"
#include "DbFileLayout.h"
#include "FuzzCache.h"
#include "FuzzDatabase.h"
#include "LogManager.h"
#include "MkdbTool.h"
#include "PeerImage.h"
#include "PeerNode.h"
#include "PeerRollback.h"
#include "TalvorRedoLog.h"
#include "TalvorRestoreMark.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

std::string g_strOut;

std::string ReadFile(const std::string& strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteSeed(const std::string& strTarget, const std::string& strName, const std::string& strBytes)
{
    std::string strDir = g_strOut + "/" + strTarget;
    mkdir(strDir.c_str(), 0755);
    std::ofstream out(strDir + "/" + strName, std::ios::binary | std::ios::trunc);
    out.write(strBytes.data(), (std::streamsize)strBytes.size());
    if (!out) {
        fprintf(stderr, "cannot write %s/%s\n", strDir.c_str(), strName.c_str());
        exit(1);
    }
}

void Put32(std::string& s, uint32_t n)
{
    for (int i = 0; i < 4; i++) s.push_back((char)((n >> (8 * i)) & 0xFF));
}

// The image form of fuzz/FuzzImage.h: runs of non-zero 16-byte granules,
// joined across gaps shorter than a piece head's worth.
std::string Sparse(const std::string& strImage, uint32_t nImageSize, uint8_t bTagA, uint8_t bTagB)
{
    std::string s;
    Put32(s, nImageSize);
    s.push_back((char)bTagA);
    s.push_back((char)bTagB);
    const size_t G = 16;
    size_t nLimit = strImage.size() < nImageSize ? strImage.size() : nImageSize;
    auto granuleZero = [&](size_t at) {
        for (size_t i = at; i < at + G && i < nLimit; i++)
            if (strImage[i] != 0) return false;
        return true;
    };
    size_t at = 0;
    while (at < nLimit) {
        if (granuleZero(at)) {
            at += G;
            continue;
        }
        size_t nEnd = at;
        size_t nZeros = 0;
        while (nEnd < nLimit && nEnd - at < 65535 - G) {
            if (granuleZero(nEnd)) {
                if (++nZeros > 1) break;
            } else {
                nZeros = 0;
            }
            nEnd += G;
        }
        if (nEnd > nLimit) nEnd = nLimit;
        size_t nLen = nEnd - at;
        Put32(s, (uint32_t)at);
        s.push_back((char)(nLen & 0xFF));
        s.push_back((char)(nLen >> 8));
        s.append(strImage, at, nLen);
        at = nEnd;
    }
    return s;
}

void WritePlanSeed(const std::string& strName, const std::string& strBytes)
{
    if (strBytes.empty()) {
        fprintf(stderr, "no plan stream for %s\n", strName.c_str());
        exit(1);
    }
    WriteSeed("PlanBuffer", strName, strBytes);
}

void IniSeeds()
{
    WriteSeed("IniFile", "daemon.ini",
              "[System]\r\ndatabasepath=/var/lib/talvor/Data/Talvor/\r\nLanguage=0\r\nbuffercachesize=0\r\n"
              "undoareasize=8\r\npersistenceintervals=3\r\n[Cluster]\r\nNodeType=0\r\n");
    WriteSeed("IniFile", "comments.ini",
              "# hand edited\n[Config] ; cluster\n  key = value # trailing\n\tTab=1\n[System]\ninstall=1\n"
              "port=0x1F90\nsize=12e2\n[Empty]\n");
}

void TextSeeds()
{
    WriteSeed("DecimalDateText", "decimal", "-123456789012345678901234567890.123456789");
    WriteSeed("DecimalDateText", "exponent", " +1.5e-7 ");
    WriteSeed("DecimalDateText", "date", std::string("2026-11-26 08:34:19.123456\0YYYY-MM-DD HH24:MI:SS", 48));
    WriteSeed("DecimalDateText", "rr", std::string("26-NOV-99\0DD-MON-RR", 19));
    WriteSeed("DecimalDateText", "time", "-3 12:30:59");
    WriteSeed("JsonText", "object", "{\"a\": [1, 2.5e3, true, null], \"b\": {\"c\": \"\\u00e9\\n\"}}");
    WriteSeed("JsonText", "string", "  \"esc\\\"aped \\ud83d\\ude00\"  ");
    WriteSeed("JsonText", "array", "[[[], {}], \"x\", -0.0]");
}

// Plans as the plan buffer lays them out: a bare head; a head with fields,
// data, records and steps whose ids point into the plan; and the same with
// small sections, so that records and steps spill over chained sections.
std::string PlanStream(UINT nSectionSize, int nItems)
{
    CBaseBson bson;
    bson.m_nDefaultBufferSectionSize = nSectionSize;
    volatile UINT nAddr = 0;
    LPBYTE p = nullptr;
    bson.AllocFromBsonBuffer(sizeof(EXECUTEPLANBSON), nAddr, p);
    std::vector<UINT> ids;
    for (int i = 0; i < nItems; i++) {
        st_VARDATA v;
        v.Init();
        v.AttachString(const_cast<char*>("talvor"), 6, 7);
        bson.WriteFieldData(7, (BYTE)i, v, nullptr);
        v.SetData((long long)i * 1000003);
        bson.WriteFieldData(2, (BYTE)i, v, nullptr);
        UINT nData = 0;
        bson.AllocFromBufferSection(40 + i, nData, p);
        memset(p, 'a' + i % 26, 40 + i);
        ids.push_back(nData);
    }
    for (int i = 0; i < nItems; i++) {
        LPRECORDHEAD lpRecord = nullptr;
        UINT nRecord = 0;
        bson.AllocRecord(lpRecord, nRecord);
        lpRecord->m_nFieldDataAddrID = ids[(size_t)i];
        lpRecord->m_nDataID = i;
        LPEXECUTESTEP lpStep = nullptr;
        UINT nStep = 0;
        bson.AllocStep(lpStep, nStep);
        lpStep->m_nRecordAddrID = nRecord;
    }
    UINT nCondition = 0;
    for (int i = 0; i < nItems; i++) AddCondition(&bson, (BYTE)(i + 1), ids[(size_t)i], 1, nCondition);
    std::string s(bson.GetExecutePlanDataSize() + 16, '\0');
    UINT n = bson.CopyExecutePlan(reinterpret_cast<LPBYTE>(&s[0]), (UINT)s.size());
    s.resize(n);
    return s;
}

void PlanSeeds()
{
    WritePlanSeed("head-only", PlanStream(BSON_DEFAULT_SECTION_SIZE, 0));
    WritePlanSeed("sections", PlanStream(BSON_DEFAULT_SECTION_SIZE, 12));
    WritePlanSeed("chained", PlanStream(512, 30));
}

// The maker's database, its data file filled by the stand-in.
void DatabaseSeeds(const std::string& strWork)
{
    talvormkdb::MakeRequest r;
    r.m_strDir = strWork + "/db/";
    r.m_strName = "Seeds";
    r.m_vFiles = {{FILETYPE_DATA, 1}, {FILETYPE_BTREEINDEX, 1}, {FILETYPE_KVINDEX, 1}};
    r.m_nRedoGroups = 3;
    r.m_nRedoSizeMiB = 1;
    if (talvormkdb::MakeDatabase(r) != 0) {
        fprintf(stderr, "the maker failed in %s\n", r.m_strDir.c_str());
        exit(1);
    }
    std::string strSystem = ReadFile(r.m_strDir + DB_SYSTEMFILE_NAME);
    WriteSeed("SystemFile", "made", Sparse(strSystem, (uint32_t)strSystem.size(), 0, 0));
    WriteSeed("FileLayout", "system", Sparse(strSystem, 512 * 1024, 0, 0));
    WriteSeed("DatabaseCheck", "system", Sparse(strSystem, 512 * 1024, 0, 0));
    std::vector<std::string> vFiles;
    DbForEachFileListRow((LPBYTE)&strSystem[0], (long long)strSystem.size(), [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO p) {
        if (p->m_bFileNo > 1 && p->m_bDropFlag == 0) vFiles.push_back(p->m_lpszFilePath);
        return true;
    });
    for (const std::string& strPath : vFiles) {
        std::string strFile = ReadFile(strPath);
        LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)&strFile[0];
        BYTE bType = lpHead->m_bFileType;
        BYTE bNo = lpHead->m_bFileNo;
        uint8_t bTag = (uint8_t)(bType - FILETYPE_DATA);
        std::string strName = "type" + std::to_string(bType);
        WriteSeed("DatabaseFile", strName + "-made", Sparse(strFile, (uint32_t)strFile.size(), bTag, bNo));
        if (!talvorpeer::PeerPrepareFile((LPBYTE)&strFile[0], (long long)strFile.size(), 6, 1500)) continue;
        if (bType == FILETYPE_DATA) {
            talvorpeer::PeerSpreadObjects((LPBYTE)&strFile[0], (long long)strFile.size(), 3, 1600);
            std::vector<long long> vBlocks = talvorpeer::PeerFileBlocks((LPBYTE)&strFile[0], (long long)strFile.size());
            for (size_t i = 0; i < vBlocks.size(); i++)
                talvorpeer::PeerChangeRow((LPBYTE)&strFile[0], (long long)strFile.size(), bNo, vBlocks[i], (int)i, 77 + (long long)i, 1700);
        }
        WriteSeed("DatabaseFile", strName + "-rows", Sparse(strFile, (uint32_t)strFile.size(), bTag, bNo));
        WriteSeed("DatabaseFile", strName + "-forced", Sparse(strFile, (uint32_t)strFile.size(), bTag | 0x80, bNo));
        if (bType == FILETYPE_DATA) WriteSeed("FileLayout", "data", Sparse(strFile, 512 * 1024, 1, 0));
        if (bType == FILETYPE_DATA) WriteSeed("DatabaseCheck", "data", Sparse(strFile, 512 * 1024, 1, 0));
    }
    // The head area of a new table and index file, as the maker writes it.
    for (BYTE bType : {FILETYPE_TABLE, FILETYPE_INDEX}) {
        CACHEHEADAREADEF stDef = {3, bType, 77, DB_MEMFILE_DEFAULT_OBJECTS, 512 * 1024, 0};
        std::string strFile((size_t)CacheHeadAreaSize(bType, stDef.m_nMaxObjectNum), '\0');
        if (!CacheBuildHeadArea(stDef, (LPBYTE)&strFile[0], (long long)strFile.size(), nullptr)) continue;
        WriteSeed("DatabaseCheck", bType == FILETYPE_TABLE ? "table" : "index",
                  Sparse(strFile, 512 * 1024, bType == FILETYPE_TABLE ? 2 : 3, 0));
    }
    for (int g = 0; g < 2; g++) {
        std::string strGroup = ReadFile(r.m_strDir + "Redo" + std::to_string(g) + ".log");
        if (strGroup.empty()) strGroup = ReadFile(r.m_strDir + "redo/Redo" + std::to_string(g) + ".log");
        if (!strGroup.empty()) WriteSeed("RedoGroupFile", "made" + std::to_string(g), Sparse(strGroup, 65536, (uint8_t)g, 0));
    }
}

// A block of the stand-in taken through inserts, updates and a delete, its
// versions in the rollback area; targets before, between and after them.
void RollbackSeeds()
{
    const int nBlockSize = 2048;
    const UINT nArea = 4096;
    std::vector<BYTE> vArea(nArea), vBlock((size_t)nBlockSize);
    talvorpeer::CPeerRollbackArea area(vArea.data(), nArea);
    talvorpeer::CPeerBlock block(vBlock.data(), nBlockSize);
    area.Format();
    block.Format(42, 2, 8);
    const BYTE arValue[] = "a value long enough to take two pieces of the row";
    int nRow = block.AddRow(1, 10, arValue, 20, 16);
    block.UpdateRow(area, nRow, 20, arValue + 5, 40);
    block.UpdateRow(area, nRow, 30, arValue, 8);
    int nOther = block.AddRow(2, 25, arValue, 12, 64);
    block.DeleteRow(area, nOther, 40);
    for (long long nTarget : {5LL, 15LL, 27LL, 35LL, 100LL}) {
        std::string s((const char*)&nTarget, 8);
        s.push_back((char)(nBlockSize / 512 - 1));
        s.append((const char*)vBlock.data(), vBlock.size());
        s.append((const char*)vArea.data(), vArea.size());
        WriteSeed("RollbackArea", "at" + std::to_string(nTarget), s);
    }
}

std::string RedoRecord(long long nSize, BYTE bType, long long nTimestamp, unsigned& nRand)
{
    std::string s((size_t)nSize, '\0');
    for (size_t i = EXECUTEPLANHEAD_SIZE; i < s.size(); i++) s[i] = (char)((nRand = nRand * 1103515245 + 12345) >> 16);
    BASEEXECUTEPLANHEAD h;
    memset(&h, 0, sizeof(h));
    h.m_nTotalDataSize = (UINT)nSize;
    h.m_nDataFlag = EXECUTEPLAN_DATAFLAG;
    h.m_nType = bType;
    h.m_bVersion = 1;
    h.m_bWriteLog = 1;
    h.m_nTimestamp = bType == 12 ? 0 : nTimestamp;
    memcpy(&s[0], &h, sizeof(h));
    if (RedoRecordHasTrailer(bType)) {
        UINT t = REDORECORD_TRAILER;
        memcpy(&s[s.size() - 4], &t, 4);
    }
    return s;
}

// The stand-in's records in a ring; then the daemon's writer drains them into
// group files, which become the group seeds (one left unsealed).
// The system head the seeds' redo writers run under: three groups of 4 KiB.
void SeedSystemHead(SYSTEMFILEHEAD& stHead)
{
    memset(&stHead, 0, sizeof(stHead));
    stHead.m_usDatabaseGuid = 0x77;
    stHead.m_nWriteRedoOnlineGroups = 3;
    stHead.m_nWriteRedoMaxSize = 4096;
    stHead.m_nWriteUndoDelayTime = 1;
    stHead.m_nRedoLogMaxID = 1;
}

// A redo writer on the ring vRing with its groups in strDir, started; the
// seeds cannot be made without it.
CTalvorRedoLog* StartSeedWriter(const std::string& strDir, LPSYSTEMFILEHEAD lpHead, BOOL* pbExit,
                                std::vector<BYTE>& vRing, REDOWRITERSTATE& st)
{
    CTalvorRedoLog* pRedo = new CTalvorRedoLog();
    pRedo->SetRingSize((int)vRing.size());
    if (!pRedo->Init(lpHead, 0, pbExit, (char*)strDir.c_str(), (char*)vRing.data(), nullptr, nullptr, FALSE, nullptr)) {
        fprintf(stderr, "the redo writer did not start in %s\n", strDir.c_str());
        exit(1);
    }
    memset(&st, 0, sizeof(st));
    pRedo->StartWriter(st);
    return pRedo;
}

void RedoSeeds(const std::string& strWork)
{
    const int nRing = (int)sizeof(FILE_TRACEMEMFILEHEAD) + 2048;
    std::vector<BYTE> vRing((size_t)nRing);
    TraceRingInitHead(vRing.data(), nRing, TRACEMEM_FILETYPE_REDO);
    unsigned nRand = 7;
    std::string strRecords;
    const BYTE arTypes[] = {1, 2, 12, 3, 1, 5};
    for (int i = 0; i < 6; i++) strRecords += RedoRecord(60 + 37 * i, arTypes[i], 100 + i, nRand);
    TraceRingWrite(vRing.data(), nRing, strRecords.data(), (int)strRecords.size());
    WriteSeed("RedoRing", "records", std::string((const char*)vRing.data(), vRing.size()));
    // A ring whose records wrap around its end.
    std::vector<BYTE> vWrap((size_t)nRing);
    TraceRingInitHead(vWrap.data(), nRing, TRACEMEM_FILETYPE_REDO);
    LPFILE_TRACEMEMFILEHEAD lpHead = (LPFILE_TRACEMEMFILEHEAD)vWrap.data();
    lpHead->m_nWritePos = lpHead->m_nReadPos = lpHead->m_nFileHeaderSize + 1900;
    TraceRingWrite(vWrap.data(), nRing, strRecords.data(), 700);
    WriteSeed("RedoRing", "wrapped", std::string((const char*)vWrap.data(), vWrap.size()));

    std::string strDir = strWork + "/redo/";
    mkdir(strDir.c_str(), 0755);
    SYSTEMFILEHEAD stHead;
    SeedSystemHead(stHead);
    BOOL bExit = FALSE;
    TALVORCRITICALSECTION stCrit;
    InitThreadCritSection(&stCrit);
    std::vector<BYTE> vDrain((size_t)nRing);
    TraceRingInitHead(vDrain.data(), nRing, TRACEMEM_FILETYPE_REDO);
    REDOWRITERSTATE st;
    CTalvorRedoLog* pRedo = StartSeedWriter(strDir, &stHead, &bExit, vDrain, st);
    for (int nRound = 0; nRound < 3; nRound++) {
        std::string s;
        for (int i = 0; i < 4; i++) s += RedoRecord(200 + 50 * i, arTypes[i], 1000 + nRound * 10 + i, nRand);
        TraceRingWrite(vDrain.data(), nRing, s.data(), (int)s.size());
        for (int i = 0; i < 3; i++) pRedo->WritePass(st, &stCrit);
    }
    delete pRedo;  // a hard stop: the open log stays unsealed
    for (int g = 0; g < 3; g++) {
        std::string strGroup = ReadFile(strDir + "Redo" + std::to_string(g) + ".log");
        if (strGroup.empty()) continue;
        MF_REDOLOGFILEHEAD h;
        memcpy(&h, strGroup.data(), sizeof(h));
        WriteSeed("RedoGroupFile", "written" + std::to_string(g),
                  Sparse(strGroup, (uint32_t)strGroup.size(), (uint8_t)g, (uint8_t)g));
    }
}

// The stand-in's records drained by the writer, and the stop sealing the
// open log: group files the archiver takes (tag B bit 1 set: archiving off,
// the group only marked).
void ArchiveSeeds(const std::string& strWork)
{
    std::string strDir = strWork + "/archive/";
    mkdir(strDir.c_str(), 0755);
    const int nRing = (int)sizeof(FILE_TRACEMEMFILEHEAD) + 2048;
    std::vector<BYTE> vRing((size_t)nRing);
    TraceRingInitHead(vRing.data(), nRing, TRACEMEM_FILETYPE_REDO);
    SYSTEMFILEHEAD stHead;
    SeedSystemHead(stHead);
    BOOL bExit = FALSE;
    TALVORCRITICALSECTION stCrit;
    InitThreadCritSection(&stCrit);
    REDOWRITERSTATE st;
    CTalvorRedoLog* pRedo = StartSeedWriter(strDir, &stHead, &bExit, vRing, st);
    unsigned nRand = 11;
    const BYTE arTypes[] = {1, 2, 12, 3};
    // Enough for two full groups; the stop seals the third.
    for (int i = 0; i < 12; i++) {
        std::string r = RedoRecord(560 + 20 * i, arTypes[i % 4], 2000 + i, nRand);
        TraceRingWrite(vRing.data(), nRing, r.data(), (int)r.size());
        pRedo->WritePass(st, &stCrit);
    }
    bExit = TRUE;
    for (int i = 0; i < 16; i++)
        if (pRedo->WritePass(st, &stCrit)) break;
    delete pRedo;
    int nSealed = 0;
    for (int g = 0; g < 3; g++) {
        std::string strGroup = ReadFile(strDir + "Redo" + std::to_string(g) + ".log");
        MF_REDOLOGFILEHEAD h;
        if (strGroup.size() < sizeof(h)) continue;
        memcpy(&h, strGroup.data(), sizeof(h));
        if (h.m_bState != REDOGROUP_SEALED) continue;
        nSealed++;
        std::string strImage = Sparse(strGroup, (uint32_t)strGroup.size(), (uint8_t)g, 0);
        WriteSeed("RedoArchiveFile", "sealed" + std::to_string(g), strImage);
        strImage[5] = 2;
        WriteSeed("RedoArchiveFile", "sealed" + std::to_string(g) + "-marked", strImage);
    }
    if (nSealed == 0) {
        fprintf(stderr, "the stop sealed no group in %s\n", strDir.c_str());
        exit(1);
    }
}

// The engine's answers to channel command 3 for the database of
// fuzz/service/ChannelHeadAnswer.cpp: the heads of the maker's files, as
// made and after the stand-in wrote rows, a "nothing to save", and an
// answer that also restates the channel's geometry, late.
void ChannelAnswerSeeds(const std::string& strWork)
{
    talvorfuzz::MadeFiles db = talvorfuzz::BuildMadeFiles(strWork + "/");
    if (!db.m_bOk) {
        fprintf(stderr, "the maker's builders failed for the channel seeds\n");
        exit(1);
    }
    auto answer = [](BYTE bFileNo, BYTE bFlags, int nResult, const BYTE* lpHead, size_t nHead) {
        std::string s;
        s.push_back((char)bFileNo);
        s.push_back((char)bFlags);
        Put32(s, (uint32_t)nResult);
        Put32(s, (uint32_t)sizeof(STORAGEMEMHEAD));
        Put32(s, (uint32_t)STORAGEMEM_SEGMENT_SIZE);
        s.append((const char*)lpHead, nHead);
        return s;
    };
    LPBASEFILEHEAD lpData = (LPBASEFILEHEAD)db.m_vData.data();
    LPBASEFILEHEAD lpSystem = (LPBASEFILEHEAD)db.m_vSystem.data();
    size_t nDataHead = (size_t)lpData->m_nFileHeaderSize;
    size_t nSystemHead = (size_t)lpSystem->m_nFileHeaderSize;
    WriteSeed("ChannelHeadAnswer", "data-made", answer(2, 4, 0, db.m_vData.data(), nDataHead));
    WriteSeed("ChannelHeadAnswer", "system-made", answer(1, 6, 0, db.m_vSystem.data(), nSystemHead));
    WriteSeed("ChannelHeadAnswer", "nothing-to-save", answer(2, 6, PEERRESULT_NOTHINGTOSAVE, db.m_vData.data(), 0));
    WriteSeed("ChannelHeadAnswer", "data-late", answer(2, 4 | 8 | 1, 0, db.m_vData.data(), nDataHead));
    LPBYTE lpImage = db.m_vData.data();
    long long nSize = (long long)db.m_vData.size();
    if (talvorpeer::PeerPrepareFile(lpImage, nSize, 4, 2500)) {
        std::vector<long long> vBlocks = talvorpeer::PeerFileBlocks(lpImage, nSize);
        for (size_t i = 0; i < vBlocks.size(); i++)
            talvorpeer::PeerChangeRow(lpImage, nSize, 2, vBlocks[i], (int)i, 300 + (long long)i, 2600);
        WriteSeed("ChannelHeadAnswer", "data-rows", answer(2, 4 | 16, 0, lpImage, (size_t)lpData->m_nFileHeaderSize));
    }
}

// The channel: each command record the engine may leave, with the storage
// command byte; and a file list row whose command asks for work.
void ChannelSeeds()
{
    const BYTE arCommands[] = {0, 1, 10, 11, 12, 16, 17, 18, 19, 40, 41, 46, 47, 250};
    for (BYTE bCommand : arCommands) {
        std::string s(1 + sizeof(TALVORCOMMAND), '\0');
        s[0] = (char)(bCommand % 8);
        TALVORCOMMAND stCmd;
        memset(&stCmd, 0, sizeof(stCmd));
        stCmd.m_bCommandType = bCommand;
        stCmd.m_bForbidSaveFlag = bCommand == 10 ? 1 : 0;
        memcpy(&s[1], &stCmd, sizeof(stCmd));
        WriteSeed("ChannelCommand", "command" + std::to_string(bCommand), s);
    }
}

// ---- The shared cache ----

std::string Bytes(const void* p, size_t n) { return std::string((const char*)p, n); }

// The survivor's head area: as the used cache leaves it, cut to its head,
// half built, made at another LRU share, damaged under an attached engine,
// with a free chain that loops and with a load group outside the cache.
void CacheSurvivorSeeds()
{
    std::vector<BYTE> v = talvorfuzz::MakeUsedCacheHead(talvorfuzz::FUZZCACHE_LRU);
    if (v.empty()) exit(1);
    const std::string strUsed = Bytes(v.data(), v.size());
    WriteSeed("CacheSurvivor", "ready-used", strUsed);
    WriteSeed("CacheSurvivor", "ready-head", strUsed.substr(0, sizeof(CacheBufferHead)));
    std::string s = strUsed;
    ((LPCacheBufferHead)&s[0])->m_bStatus = CACHESTATUS_BUILDING;
    WriteSeed("CacheSurvivor", "building", s.substr(0, sizeof(CacheBufferHead)));
    s = strUsed;
    ((LPCacheBufferHead)&s[0])->m_nDataFlag = 0;
    WriteSeed("CacheSurvivor", "bad-mark-attached", s + std::string(1, '\x01'));
    s = strUsed;
    UINT nFree = (UINT)((LPCacheBufferHead)&s[0])->m_nFreeNo;
    memcpy(&s[(size_t)CacheLinkOffset(nFree)], &nFree, sizeof(nFree));
    WriteSeed("CacheSurvivor", "free-loop", s);
    s = strUsed;
    ((LPCacheBufferHead)&s[0])->m_stFileCacheLoadInfo[3].m_nCacheLoadHeadOffset = 32LL * 1048576 - 64;
    WriteSeed("CacheSurvivor", "group-outside", s.substr(0, sizeof(CacheBufferHead)));
    std::vector<BYTE> vOther = talvorfuzz::MakeUsedCacheHead(70);
    if (vOther.empty()) exit(1);
    WriteSeed("CacheSurvivor", "ready-lru70", Bytes(vOther.data(), vOther.size()));
    int nId = shmget(SHMKEY_CACHEBUFFER, 0, 0);
    if (nId >= 0) shmctl(nId, IPC_RMID, nullptr);
}

// One ring record of CacheFlushEntry: the entry and the first bytes of the
// place it names.
std::string FlushRecord(const stu_CacheFlush& e, const void* lpPlace, size_t nPlace)
{
    std::string s = Bytes(&e, sizeof(e));
    std::string strPlace(256, '\0');
    memcpy(&strPlace[0], lpPlace, nPlace < 256 ? nPlace : 256);
    return s + strPlace;
}

std::string DataRecord(BYTE bFileNo, UINT nBlockNo, long long llCache, long long llFile)
{
    stu_CacheFlush e;
    memset((void*)&e, 0, sizeof(e));
    e.m_bBlockType = CACHEFLUSH_DATA;
    e.m_bFileNo = bFileNo;
    e.m_bFlushCode = 3;
    e.m_nBlockNo = nBlockNo;
    e.m_nBlockSize = CACHE_BLOCK_SIZE;
    e.m_llTimestamp = e.m_llTransTimestamp = 7000;
    e.m_llCacheBlockOffset = llCache;
    e.m_llFileBlockOffset = llFile;
    BLOCKHEAD h;
    memset(&h, 0, sizeof(h));
    h.m_nDataFlag = BLOCK_DATAFLAG;
    h.m_nBlockNo = nBlockNo;
    h.m_nTimestamp = 7000;
    h.m_nLockTimestamp = 99;
    h.m_nBlockSize = CACHE_BLOCK_SIZE;
    h.m_bStatus = 3;
    h.m_bFileNo = bFileNo;
    h.m_bSaveFlag = 1;
    h.m_bThreadNum = 2;
    h.m_bFlushCode = 3;
    h.m_bFlushFlag = 1;
    return FlushRecord(e, &h, sizeof(h));
}

std::string PageRecord(BYTE bType, BYTE bFileNo, BYTE bFileType, BYTE bImage, long long llImages, long long llFile,
                       UINT nMapNo)
{
    stu_CacheFlush e;
    memset((void*)&e, 0, sizeof(e));
    e.m_bBlockType = bType;
    e.m_bReserved = bImage;
    e.m_bFileNo = bFileNo;
    e.m_nBlockNo = nMapNo;
    e.m_nBlockSize = CACHE_PAGE_SIZE;
    e.m_llCacheBlockOffset = llImages + (long long)bImage * CACHE_PAGE_SIZE;
    e.m_llFileBlockOffset = llFile;
    std::string strPage(256, '\0');
    bool bIndex = bFileType == FILETYPE_INDEX;
    int nMark = bType == CACHEFLUSH_HEAD    ? (bIndex ? INDEXFILE_DATAFLAG : TABLEFILE_DATAFLAG)
                : bType == CACHEFLUSH_EXHEAD ? (bIndex ? INDEXFILEEX_DATAFLAG : TABLEFILEEX_DATAFLAG)
                                             : BLOCKMAP_CACHE_DATAFLAG;
    memcpy(&strPage[0], &nMark, sizeof(nMark));
    if (bType == CACHEFLUSH_HEAD) {
        ((LPTABLEFILEHEAD)&strPage[0])->m_bFileType = bFileType;
        ((LPTABLEFILEHEAD)&strPage[0])->m_bFileNo = bFileNo;
    }
    if (bType == CACHEFLUSH_EXHEAD) ((LPTABLEFILEHEADEX)&strPage[0])->m_bFileNo = bFileNo;
    if (bType == CACHEFLUSH_MAP) ((LPBASEFILEBLOCKMAPHEAD_CACHE)&strPage[0])->m_nMapNo = (int)nMapNo;
    return FlushRecord(e, strPage.data(), strPage.size());
}

std::string TimestampRecord(long long llTs, int nImage, long long llTsImages, int nNum)
{
    stu_CacheFlush e;
    memset((void*)&e, 0, sizeof(e));
    e.m_bBlockType = CACHEFLUSH_TIMESTAMPS;
    e.m_llTimestamp = llTs;
    e.m_nTimestampNum = nNum;
    std::string strArray(256, '\0');
    if (nImage >= 0) {
        e.m_bReserved = (BYTE)nImage;
        e.m_llCacheBlockOffset = llTsImages + (long long)nImage * CACHEFLUSH_TSIMAGE_SIZE;
        for (int i = 0; i < 8; i++) {
            long long llValue = llTs - i;
            memcpy(&strArray[(size_t)i * 8], &llValue, 8);
        }
    }
    return FlushRecord(e, strArray.data(), strArray.size());
}

// Ring entries of either pipeline: data blocks of each file, heads, maps
// and extended heads from the pool, timestamps with and without an array,
// and entries the pipeline must refuse.
void CacheFlushSeeds()
{
    using namespace talvorfuzz;
    CACHELAYOUT l;
    if (!CacheComputeLayoutMB(FUZZCACHE_MB, FUZZCACHE_LRU, l)) exit(1);
    long long llBlock = CacheBlockOffset(l.m_nFirstFreeNo + 20);
    long long llImages = l.m_llFlashBackOffset;
    long long llTsImages = llImages + (long long)CACHE_FLUSHFILE_NUM * CACHE_PAGE_SIZE;
    std::string strHead("\x00\x03", 2);
    WriteSeed("CacheFlushEntry", "table-data",
              strHead + DataRecord(FUZZCACHE_DIRECT_NO, 5, llBlock, 5LL * CACHE_BLOCK_SIZE) +
                  DataRecord(FUZZCACHE_BUFFERED_NO, 9, llBlock + CACHE_BLOCK_SIZE, 9LL * CACHE_BLOCK_SIZE) +
                  TimestampRecord(7000, 0, llTsImages, 8) + TimestampRecord(7001, -1, llTsImages, 0));
    WriteSeed("CacheFlushEntry", "table-pages",
              std::string("\x00\x7f", 2) +
                  PageRecord(CACHEFLUSH_HEAD, FUZZCACHE_DIRECT_NO, FILETYPE_TABLE, 0, llImages, 0, 0) +
                  PageRecord(CACHEFLUSH_MAP, FUZZCACHE_DIRECT_NO, FILETYPE_TABLE, 1, llImages, 2LL * CACHE_PAGE_SIZE, 1) +
                  PageRecord(CACHEFLUSH_EXHEAD, FUZZCACHE_BUFFERED_NO, FILETYPE_TABLE, 2, llImages, CACHE_PAGE_SIZE, 0) +
                  TimestampRecord(7002, 1, llTsImages, CACHEFLUSH_TSNUM_CLEAR));
    WriteSeed("CacheFlushEntry", "index",
              std::string("\x01\x09", 2) + DataRecord(FUZZCACHE_INDEX_NO, 12, llBlock, 12LL * CACHE_BLOCK_SIZE) +
                  PageRecord(CACHEFLUSH_HEAD, FUZZCACHE_INDEX_NO, FILETYPE_INDEX, 3, llImages, 0, 0) +
                  PageRecord(CACHEFLUSH_MAP, FUZZCACHE_INDEX_NO, FILETYPE_INDEX, 4, llImages, 3LL * CACHE_PAGE_SIZE, 2) +
                  TimestampRecord(7003, 2, llTsImages, 4));
    WriteSeed("CacheFlushEntry", "refused",
              strHead + DataRecord(FUZZCACHE_DIRECT_NO, 5, CACHE_BLOCK_SIZE, 5LL * CACHE_BLOCK_SIZE) +
                  DataRecord(FUZZCACHE_DIRECT_NO, 6, llBlock, FUZZCACHE_FILE_SIZE) +
                  DataRecord(FUZZCACHE_DIRECT_NO, 7, llBlock, 0) + DataRecord(30, 7, llBlock, 7LL * CACHE_BLOCK_SIZE) +
                  DataRecord(FUZZCACHE_NOBACKEND_NO, 7, llBlock, 7LL * CACHE_BLOCK_SIZE) +
                  PageRecord(CACHEFLUSH_MAP, FUZZCACHE_DIRECT_NO, FILETYPE_TABLE, 200, llImages, 2LL * CACHE_PAGE_SIZE, 1) +
                  PageRecord(CACHEFLUSH_EXHEAD, FUZZCACHE_DIRECT_NO, FILETYPE_TABLE, 5, llImages, 0, 0));
}

std::string LoadSlot(BYTE bFileNo, UINT nBlockNo, long long llCache, long long llFile, int nSize, int nVerifyDelta = 0)
{
    CacheBufferBlockOperate s;
    memset((void*)&s, 0, sizeof(s));
    s.m_bFileNo = bFileNo;
    s.m_nBlockNo = nBlockNo;
    s.m_llCacheBlockOffset = llCache;
    s.m_llFileBlockOffset = llFile;
    s.m_nBlockSize = nSize;
    s.m_bVerification = (BYTE)((llCache / CACHE_BLOCK_SIZE) % 255 + 1 + nVerifyDelta);
    return Bytes(&s, sizeof(s));
}

// Load slots: blocks of each file (one ending in a zero byte), a file
// recorded longer and one shorter than it is, and requests to refuse.
void CacheLoadSeeds()
{
    using namespace talvorfuzz;
    CACHELAYOUT l;
    if (!CacheComputeLayoutMB(FUZZCACHE_MB, FUZZCACHE_LRU, l)) exit(1);
    long long llBlock = CacheBlockOffset(l.m_nFirstFreeNo + 20);
    const long long B = CACHE_BLOCK_SIZE;
    WriteSeed("CacheLoadSlot", "direct",
              std::string("\x00\x00\x00", 3) + LoadSlot(FUZZCACHE_DIRECT_NO, 5, llBlock, 5 * B, CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_DIRECT_NO, 6, llBlock + B, 6 * B, CACHE_BLOCK_SIZE));
    WriteSeed("CacheLoadSlot", "buffered",
              std::string("\x01\x3e\x00", 3) + LoadSlot(FUZZCACHE_BUFFERED_NO, 7, llBlock, 7 * B, CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_BUFFERED_NO, 8, llBlock + 2 * B, 8 * B, CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_BUFFERED_NO, 9, llBlock + 4 * B, 9 * B, CACHE_BLOCK_SIZE, 1));
    WriteSeed("CacheLoadSlot", "recorded-longer",
              std::string("\x00\x00\x40", 3) +
                  LoadSlot(FUZZCACHE_DIRECT_NO, 257, llBlock, FUZZCACHE_FILE_SIZE + B, CACHE_BLOCK_SIZE));
    WriteSeed("CacheLoadSlot", "recorded-shorter",
              std::string("\x00\x00\xf0", 3) +
                  LoadSlot(FUZZCACHE_DIRECT_NO, 250, llBlock, 250 * B, CACHE_BLOCK_SIZE));
    WriteSeed("CacheLoadSlot", "refused",
              std::string("\x00\x05\x00", 3) + LoadSlot(30, 5, llBlock, 5 * B, CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_NOBACKEND_NO, 5, llBlock, 5 * B, CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_DIRECT_NO, 5, B, 5 * B, CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_DIRECT_NO, 5, llBlock, 5 * B, 2 * CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_DIRECT_NO, 6, llBlock, 5 * B, CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_DIRECT_NO, 5, llBlock + 100, 5 * B, CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_DIRECT_NO, 5, l.m_llFIFOOffset, 5 * B, CACHE_BLOCK_SIZE) +
                  LoadSlot(FUZZCACHE_DIRECT_NO, 5, llBlock, 0, CACHE_BLOCK_SIZE));
}

// Backups of a few small files of every type (each used part a few KiB,
// so that the seeds stay small): whole, incremental over two pages of
// items, and a head never finished.
void BackupSeeds()
{
    using namespace backuptest;
    std::vector<DbFile> vFiles = {
        {FILETYPE_SYSTEM, 1, 65536, 4096 + 200, 1024, 11, "/db/System.dbf"},
        {FILETYPE_DATA, 2, 65536, 3000, 512, 12, "/db/F2.dbf"},
        {FILETYPE_BTREEINDEX, 3, 65536, 0, 512, 0, "/db/F3.dbf"},
        {FILETYPE_TABLE, 10, 262144, 1536, 1024, 14, "/db/F10.dbf"},
    };
    std::string strFull = WholeBackup(vFiles);
    WriteSeed("BackupVerify", "full", Sparse(strFull, (uint32_t)strFull.size(), 0, 0));
    std::string strUnfinished = strFull;
    std::string strPlaceholder = PlaceholderHead((int)vFiles.size());
    strUnfinished.replace(0, strPlaceholder.size(), strPlaceholder);
    WriteSeed("BackupVerify", "placeholder", Sparse(strUnfinished, (uint32_t)strUnfinished.size(), 0, 0));
    std::vector<IncFile> vInc = {{vFiles[0], ChangedPieces(vFiles[0], 1, 512, 300, 64)},
                                 {vFiles[2], {}},
                                 {vFiles[3], ChangedPieces(vFiles[3], 1, 1024, 2, 512)}};
    std::string strInc = IncrementImage(vInc);
    WriteSeed("BackupVerify", "increment", Sparse(strInc, (uint32_t)strInc.size(), 0, 0));
}

} // namespace

// ---- What another node sends back ----

// A stream of replies as the stand-in's node listeners answer a request of
// token 0x42: a position, a shipment taken after a keep-alive, a failure,
// the leaving node, and for the join a foreign reply with bytes behind it
// and one with a length no reply may have.
void NodeSeeds()
{
    const BYTE TOKEN = 0x42;
    const BYTE RECEIVER_STANDBY = 0, RECEIVER_JOIN = 1;
    MF_SERVICE_TCP_COMMAND stAsk;
    memset(&stAsk, 0, sizeof(stAsk));
    stAsk.m_bToken = TOKEN;
    auto reply = [&](BYTE bType, int nCode) { return talvorpeer::Reply(stAsk, bType, nCode); };
    auto seed = [&](const std::string& strName, BYTE bReceiver, const std::string& strStream) {
        WriteSeed("NodeReplyStream", strName, std::string(1, (char)bReceiver) + std::string(1, (char)TOKEN) + strStream);
    };
    MF_SERVICE_TCP_COMMAND stPosition = reply(NODEMSG_SUCCESS, 0);
    MF_STANDBY_TCP_COMMAND stAt;
    memset(&stAt, 0, sizeof(stAt));
    stAt.m_nTimestamp = 5000;
    stAt.m_nLogNo = 3;
    stAt.m_nReadPos = REDOLOGFILE_HEAD_SIZE;
    memcpy(stPosition.m_lpszParam, &stAt, sizeof(stAt));
    MF_SERVICE_TCP_COMMAND stKeep = reply(NODEMSG_KEEPALIVE, 0);
    MF_SERVICE_TCP_COMMAND stDone = reply(NODEMSG_SUCCESS, 0);
    MF_SERVICE_TCP_COMMAND stFailed = reply(NODEMSG_FAILURE, 5);
    MF_SERVICE_TCP_COMMAND stLeaving = reply(NODEMSG_FAILURE, NODEMSG_LEAVING);
    stLeaving.m_bToken = TOKEN + 7;
    MF_SERVICE_TCP_COMMAND stOld = reply(NODEMSG_SUCCESS, 0);
    stOld.m_bToken = TOKEN - 1;
    std::string strShipping = Bytes(&stPosition, sizeof(stPosition)) + Bytes(&stOld, sizeof(stOld)) +
                              Bytes(&stKeep, sizeof(stKeep)) + Bytes(&stDone, sizeof(stDone)) +
                              Bytes(&stFailed, sizeof(stFailed)) + Bytes(&stLeaving, sizeof(stLeaving));
    seed("standby-shipping", RECEIVER_STANDBY, strShipping);
    seed("standby-torn", RECEIVER_STANDBY, strShipping.substr(0, sizeof(stPosition) + 40));
    std::string strJunk(300, (char)0x5A);
    MF_SERVICE_TCP_COMMAND stForeign = reply(NODEMSG_SUCCESS, 0);
    stForeign.m_bToken = TOKEN + 1;
    stForeign.m_lDataLength = (UINT)strJunk.size();
    MF_SERVICE_TCP_COMMAND stHuge = reply(NODEMSG_SUCCESS, 0);
    stHuge.m_lDataLength = 0x40000000;
    std::string strJoin = Bytes(&stForeign, sizeof(stForeign)) + strJunk + Bytes(&stDone, sizeof(stDone)) +
                          Bytes(&stDone, sizeof(stDone)) + Bytes(&stFailed, sizeof(stFailed)) +
                          Bytes(&stHuge, sizeof(stHuge)) + strJunk;
    seed("join-copy", RECEIVER_JOIN, strJoin);
    seed("join-standby-shipping", RECEIVER_JOIN, strShipping);
}

// Marks as the restore writes them: a whole one, one without a redo
// number or identity, one with the longest archive list.
void RestoreMarkSeeds(const std::string& strWork)
{
    const std::string strSystem = strWork + "/System.dbf";
    std::string strMarkPath = strSystem + ".restoring";
    TALVORRESTOREMARK stMark;
    struct Seed {
        const char* lpName;
        std::string strArchive;
        long long nTimestamp;
        UINT nRedo;
        USHORT usGuid;
    } arSeeds[] = {
        {"whole", "/data/archive/;/backup/second/", 880044, 77, 0x1234},
        {"unknown-redo", "/data/archive/", 5, 0, 0},
        {"longest-list", std::string(RESTOREMARK_PATH_SIZE - 1, 'a'), 0x7FFFFFFFFFFFFFFFLL, 0xFFFFFFFFU, 0xFFFF},
    };
    for (const Seed& seed : arSeeds) {
        memset(&stMark, 0, sizeof(stMark));
        memcpy(stMark.m_lpArchiveDesPath, seed.strArchive.data(), seed.strArchive.size());
        stMark.m_nTimestamp = seed.nTimestamp;
        stMark.m_nRedoLogMaxID = seed.nRedo;
        stMark.m_usDatabaseGuid = seed.usGuid;
        if (!TalvorSetRestoreMark(strSystem.c_str(), stMark)) {
            fprintf(stderr, "cannot write the mark %s\n", seed.lpName);
            exit(1);
        }
        WriteSeed("RestoreMark", seed.lpName, ReadFile(strMarkPath));
    }
    TalvorClearRestoreMark(strSystem.c_str());
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s CORPUSDIR WORKDIR\n", argv[0]);
        return 2;
    }
    g_strOut = argv[1];
    std::string strWork = argv[2];
    mkdir(g_strOut.c_str(), 0755);
    IniSeeds();
    TextSeeds();
    PlanSeeds();
    DatabaseSeeds(strWork);
    RollbackSeeds();
    RedoSeeds(strWork);
    ChannelSeeds();
    ArchiveSeeds(strWork);
    ChannelAnswerSeeds(strWork);
    CacheSurvivorSeeds();
    CacheFlushSeeds();
    CacheLoadSeeds();
    BackupSeeds();
    RestoreMarkSeeds(strWork);
    NodeSeeds();
    return 0;
}
