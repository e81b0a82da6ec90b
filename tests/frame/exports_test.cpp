// The shared library's dynamic symbols are exactly the entry table's names, each a single
// indirect jump through its own slot of one read-only table, slots in name order.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "frame/entry_table.h"
#include "vekr.h"

namespace {

struct DynamicSymbol {
    std::string name;
    uint64_t size;
    unsigned type;
};

// Defined global or weak symbols of the file's dynamic symbol table.
std::vector<DynamicSymbol> readDefinedDynamicSymbols(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> file((std::istreambuf_iterator<char>(in)),
                                 std::istreambuf_iterator<char>());
    std::vector<DynamicSymbol> symbols;
    if (file.size() < sizeof(ElfW(Ehdr))) return symbols;
    const auto* header = reinterpret_cast<const ElfW(Ehdr)*>(file.data());
    const auto* sections = reinterpret_cast<const ElfW(Shdr)*>(file.data() + header->e_shoff);
    for (int s = 0; s < header->e_shnum; ++s) {
        if (sections[s].sh_type != SHT_DYNSYM) continue;
        const char* names = file.data() + sections[sections[s].sh_link].sh_offset;
        const auto* syms = reinterpret_cast<const ElfW(Sym)*>(file.data() + sections[s].sh_offset);
        const size_t count = sections[s].sh_size / sizeof(ElfW(Sym));
        for (size_t i = 0; i < count; ++i) {
            const unsigned bind = ELF64_ST_BIND(syms[i].st_info);
            if (syms[i].st_shndx == SHN_UNDEF || (bind != STB_GLOBAL && bind != STB_WEAK)) continue;
            symbols.push_back({names + syms[i].st_name, uint64_t(syms[i].st_size),
                               unsigned(ELF64_ST_TYPE(syms[i].st_info))});
        }
    }
    return symbols;
}

// Permissions ("r--p", ...) of the mapping of this process that holds address.
std::string mappingPermissions(const void* address)
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    const auto a = reinterpret_cast<uintptr_t>(address);
    while (std::getline(maps, line)) {
        std::istringstream fields(line);
        std::string range, perms;
        fields >> range >> perms;
        const size_t dash = range.find('-');
        const uintptr_t lo = std::stoull(range.substr(0, dash), nullptr, 16);
        const uintptr_t hi = std::stoull(range.substr(dash + 1), nullptr, 16);
        if (a >= lo && a < hi) return perms;
    }
    return "";
}

#if defined(__x86_64__)
constexpr uint64_t kStubBytes = 6;  // jmp *slot(%rip)
#else
constexpr uint64_t kStubBytes = 17;  // call thunk; addl $GOT, %ecx; jmp *slot@GOTOFF(%ecx)
#endif

int32_t readInt32(const unsigned char* bytes)
{
    int32_t value;
    std::memcpy(&value, bytes, 4);
    return value;
}

// The slot the export stub at code jumps through, or null if the code is not such a stub.
const void* const* indirectJumpSlot(const unsigned char* code)
{
#if defined(__x86_64__)
    if (code[0] != 0xFF || code[1] != 0x25) return nullptr;
    return reinterpret_cast<const void* const*>(code + 6 + readInt32(code + 2));  // RIP-relative
#else
    // The call must reach a thunk that loads its return address into ecx and returns
    // (movl (%esp), %ecx; ret): ecx then holds code + 5, the GOT is an add away, the slot a
    // GOT offset from there.
    if (code[0] != 0xE8 || code[5] != 0x81 || code[6] != 0xC1 || code[11] != 0xFF ||
        code[12] != 0xA1)
        return nullptr;
    const unsigned char* thunk = code + 5 + readInt32(code + 1);
    if (std::memcmp(thunk, "\x8b\x0c\x24\xc3", 4) != 0) return nullptr;
    const uintptr_t got = uintptr_t(code + 5) + uint32_t(readInt32(code + 7));
    return reinterpret_cast<const void* const*>(got + uint32_t(readInt32(code + 13)));
#endif
}

}  // namespace

TEST(Exports, DynamicSymbolsAreExactlyTheEntryTable)
{
    const auto symbols = readDefinedDynamicSymbols(VEKR_SHARED_LIBRARY_PATH);
    std::vector<std::string> exported;
    for (const auto& s : symbols) {
        exported.push_back(s.name);
        EXPECT_EQ(s.type, unsigned(STT_FUNC)) << s.name;
        EXPECT_EQ(s.size, kStubBytes) << s.name << " is more than the jump through its slot";
    }
    std::sort(exported.begin(), exported.end());
    std::vector<std::string> expected(std::begin(vekr::frame::kEntryNames),
                                      std::end(vekr::frame::kEntryNames));
    EXPECT_EQ(exported, expected);
}

TEST(Exports, EachSymbolJumpsThroughItsSlotOfOneReadOnlyTable)
{
    void* library = dlopen(VEKR_SHARED_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr) << "the test program links the library";
    const void* const* firstSlot = nullptr;
    for (int i = 0; i < vekr::frame::kEntryCount; ++i) {
        const std::string name(vekr::frame::kEntryNames[i]);
        const auto* code = static_cast<const unsigned char*>(dlsym(library, name.c_str()));
        ASSERT_NE(code, nullptr) << name;
        const void* const* slot = indirectJumpSlot(code);
        ASSERT_NE(slot, nullptr) << name << " is not an indirect jump through a slot";
        if (i == 0) firstSlot = slot;
        EXPECT_EQ(slot, firstSlot + i) << name << " is not in slot " << i;
        EXPECT_EQ(mappingPermissions(slot).substr(0, 3), "r--") << name << " slot is writable";

        // The slot holds an implementation inside the same library, not the stub itself.
        Dl_info stubInfo{}, targetInfo{};
        ASSERT_NE(dladdr(code, &stubInfo), 0);
        ASSERT_NE(dladdr(*slot, &targetInfo), 0) << name;
        EXPECT_EQ(targetInfo.dli_fbase, stubInfo.dli_fbase) << name;
        EXPECT_NE(*slot, static_cast<const void*>(code)) << name;
    }
    dlclose(library);
}

TEST(Version, RecordIsStaticAndDescribesTheBuild)
{
    const LibVersion* v = vekrGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, vekrGetLibVersion());
    EXPECT_EQ(v->majorVersion, VEKR_TEST_VERSION_MAJOR);
    EXPECT_EQ(v->minorVersion, VEKR_TEST_VERSION_MINOR);
    EXPECT_EQ(v->updateNumber, VEKR_TEST_VERSION_PATCH);
    EXPECT_GE(v->revision, 0);
    EXPECT_EQ(std::memcmp(v->cpuTag, "AVX\0", 4), 0);
    EXPECT_STREQ(v->name, "vekr (AVX)");
    const std::string expectedText =
        std::to_string(v->majorVersion) + "." + std::to_string(v->minorVersion) + "." +
        std::to_string(v->updateNumber) + " (" + std::to_string(v->revision) + ")";
    EXPECT_EQ(std::string(v->versionText), expectedText);

    // "Nov 21 2026" or "Nov 1 2026": month abbreviation, day without padding, year.
    static const std::map<std::string, int> kMonths = {
        {"Jan", 1}, {"Feb", 2}, {"Mar", 3}, {"Apr", 4},  {"May", 5},  {"Jun", 6},
        {"Jul", 7}, {"Aug", 8}, {"Sep", 9}, {"Oct", 10}, {"Nov", 11}, {"Dec", 12}};
    std::istringstream date(v->buildDate);
    std::string month, day, year, rest;
    date >> month >> day >> year >> rest;
    EXPECT_TRUE(kMonths.count(month)) << v->buildDate;
    EXPECT_TRUE(day.size() >= 1 && day.size() <= 2 && day[0] != '0') << v->buildDate;
    EXPECT_EQ(year.size(), 4u) << v->buildDate;
    EXPECT_EQ(std::string(v->buildDate), month + " " + day + " " + year);
}
