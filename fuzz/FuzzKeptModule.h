// FuzzKeptModule.h — a module on the made database brought up once and kept
// across inputs, for the targets whose input is what the engine lays over a
// running module: an input then costs its own work, not a bring-up (the
// shared segments, the load of every file) and a release.
//
// Before each input the module is put back as the bring-up left it: the
// made files are written to disk again (their save pass is told so), every
// file's image and the whole channel segment get back the bytes they had
// after the bring-up. After each input the module object, the flashback
// object and every descriptor and storage object are compared byte for byte
// with their state after the bring-up: an input that changed any of them (a
// file added or dropped, a field of the module set, a latch left taken) has
// the module given back and brought up anew before the next input, so that
// nothing one input leaves behind reaches the next. What lies behind a
// pointer of those objects, other than the images and the channel, is not
// compared: the storage objects own no other state that an input reaches.
#pragma once

#include "FuzzDatabase.h"
#include "FuzzModule.h"
#include "TalvorMemoryStorage.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace talvorfuzz {

class CKeptModule {
public:
    // The module, ready for an input. Aborts when the made database does
    // not come up or its files cannot be written again.
    CBreltMemStorageModule& Ready(const MadeFiles& db)
    {
        if (!WriteMadeDatabase(db)) abort();
        if (m_pModule == nullptr) {
            BringUp();
            return *m_pModule;
        }
        for (Kept& k : m_vFiles) {
            memcpy(k.p->m_pFileAddr, k.vImage.data(), k.vImage.size());
            if (k.pMemory != nullptr) k.pMemory->FileWrittenOutside();
        }
        memcpy(m_pModule->m_pFlashback->m_pStorageMemFileAddr, m_vChannel.data(), m_vChannel.size());
        m_nKept++;
        return *m_pModule;
    }

    LPTALVORCRITICALSECTION Crit() { return &m_stCrit; }

    // After an input: a module the input changed is given back.
    void After()
    {
        if (m_pModule != nullptr && !Unchanged()) GiveBack();
    }

    ~CKeptModule()
    {
        if (getenv("TALVOR_FUZZ_KEPT_STATS") != nullptr)
        {
            fprintf(stderr, "kept module: %ld inputs on a kept module, %ld bring-ups\n", m_nKept, m_nBringUps);
            for (const auto& it : m_mChanged) fprintf(stderr, "  changed %s: %ld\n", it.first.c_str(), it.second);
        }
    }

private:
    struct Kept {
        LPFILEINFO p;
        CTalvorMemoryStorage* pMemory;  // null for another kind of backend
        std::vector<BYTE> vInfo;
        std::vector<BYTE> vStorage;
        std::vector<BYTE> vImage;
    };

    template <class T>
    static std::vector<BYTE> BytesOf(const T* p)
    {
        return std::vector<BYTE>((const BYTE*)p, (const BYTE*)p + sizeof(T));
    }

    void Keep(LPFILEINFO p)
    {
        Kept k;
        k.p = p;
        k.pMemory = dynamic_cast<CTalvorMemoryStorage*>(p->m_pStorageFile);
        if (k.pMemory != nullptr) {
            k.pMemory->FileWrittenOutside();
            k.vStorage = BytesOf(k.pMemory);
        }
        k.vInfo = BytesOf(p);
        if (p->m_pFileAddr != nullptr) k.vImage.assign(p->m_pFileAddr, p->m_pFileAddr + p->m_liFileSize);
        m_vFiles.push_back(std::move(k));
    }

    void BringUp()
    {
        m_pModule = new CBreltMemStorageModule();
        BringUpMadeModule(*m_pModule, m_stCrit);
        m_nBringUps++;
        if (m_pModule->m_lpSystemFileInfo != nullptr) Keep(m_pModule->m_lpSystemFileInfo);
        for (LPFILEINFO p = m_pModule->m_pStorageInfo; p != nullptr; p = p->m_pNext) Keep(p);
        CTalvorFlashback* pFlashback = m_pModule->m_pFlashback;
        if (pFlashback == nullptr || pFlashback->m_pStorageMemFileAddr == nullptr) abort();
        m_vChannel.assign(pFlashback->m_pStorageMemFileAddr, pFlashback->m_pStorageMemFileAddr + STORAGEMEM_SEGMENT_SIZE);
        m_vModule = BytesOf(m_pModule);
        m_vFlashback = BytesOf(pFlashback);
        m_vCrit = BytesOf(&m_stCrit);
    }

    // Whether p holds the bytes of v; a difference is counted under lpWhat
    // and its first offset, for the run's statistics.
    bool Same(const std::vector<BYTE>& v, const void* p, const char* lpWhat)
    {
        const BYTE* b = (const BYTE*)p;
        for (size_t i = 0; i < v.size(); i++)
            if (v[i] != b[i]) {
                m_mChanged[std::string(lpWhat) + "+" + std::to_string(i)]++;
                return false;
            }
        return true;
    }

    bool Unchanged()
    {
        size_t nFiles = 0;
        if (m_pModule->m_lpSystemFileInfo != nullptr) nFiles++;
        for (LPFILEINFO p = m_pModule->m_pStorageInfo; p != nullptr; p = p->m_pNext) nFiles++;
        if (nFiles != m_vFiles.size()) {
            m_mChanged["file list"]++;
            return false;
        }
        for (Kept& k : m_vFiles) {
            // The save pass moves a file's timestamp on: set back, as the
            // image it stands for is.
            memcpy(&k.p->m_nTimestamp, k.vInfo.data() + offsetof(FILEINFO, m_nTimestamp), sizeof(k.p->m_nTimestamp));
            if (k.pMemory != nullptr) {
                k.pMemory->FileWrittenOutside();
                if (!Same(k.vStorage, k.pMemory, "storage")) return false;
            }
            if (!Same(k.vInfo, k.p, "descriptor")) return false;
        }
        return Same(m_vModule, m_pModule, "module") && Same(m_vFlashback, m_pModule->m_pFlashback, "flashback") &&
               Same(m_vCrit, &m_stCrit, "latch");
    }

    void GiveBack()
    {
        ReleaseMadeModule(*m_pModule);
        delete m_pModule;
        m_pModule = nullptr;
        m_vFiles.clear();
    }

    CBreltMemStorageModule* m_pModule = nullptr;
    TALVORCRITICALSECTION m_stCrit;
    std::vector<Kept> m_vFiles;
    std::vector<BYTE> m_vChannel;
    std::vector<BYTE> m_vModule;
    std::vector<BYTE> m_vFlashback;
    std::vector<BYTE> m_vCrit;
    std::map<std::string, long> m_mChanged;
    long m_nKept = 0;
    long m_nBringUps = 0;
};

} // namespace talvorfuzz
