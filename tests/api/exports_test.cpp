// The exported symbol set of pelorin_cxp.cti is exactly the expected list:
// nothing missing, nothing extra. The dynamic symbol table is read from the
// ELF file itself.
#include <elf.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "producer_api.h"

namespace {

std::vector<char> read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Names of the defined global and weak symbols of the dynamic symbol table.
std::set<std::string> defined_dynamic_symbols(const std::vector<char> &image) {
    std::set<std::string> names;
    if (image.size() < sizeof(Elf64_Ehdr)) return names;
    const auto *header = reinterpret_cast<const Elf64_Ehdr *>(image.data());
    const auto *sections = reinterpret_cast<const Elf64_Shdr *>(image.data() + header->e_shoff);
    for (int i = 0; i < header->e_shnum; ++i) {
        if (sections[i].sh_type != SHT_DYNSYM) continue;
        const Elf64_Shdr &strings = sections[sections[i].sh_link];
        const auto *symbols = reinterpret_cast<const Elf64_Sym *>(image.data() + sections[i].sh_offset);
        const size_t count = sections[i].sh_size / sizeof(Elf64_Sym);
        for (size_t s = 1; s < count; ++s) {
            const Elf64_Sym &symbol = symbols[s];
            const int binding = ELF64_ST_BIND(symbol.st_info);
            if (symbol.st_shndx == SHN_UNDEF) continue;
            if (binding != STB_GLOBAL && binding != STB_WEAK && binding != STB_GNU_UNIQUE) continue;
            names.insert(image.data() + strings.sh_offset + symbol.st_name);
        }
    }
    return names;
}

std::set<std::string> expected_exports() {
    std::set<std::string> names;
    std::ifstream in(PELORIN_EXPORTS_FILE);
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line[0] != '#') names.insert(line);
    return names;
}

}  // namespace

TEST(Exports, ExactlyTheGenTLSetTheProducerApiAndTheStreamMembers) {
    const std::set<std::string> expected = expected_exports();
    ASSERT_EQ(expected.size(), 64u + 31u + 10u);
    const std::set<std::string> actual = defined_dynamic_symbols(read_file(cti_path()));

    std::vector<std::string> missing, extra;
    for (const auto &name : expected)
        if (!actual.count(name)) missing.push_back(name);
    for (const auto &name : actual)
        if (!expected.count(name)) extra.push_back(name);
    EXPECT_TRUE(missing.empty()) << "missing: " << testing::PrintToString(missing);
    EXPECT_TRUE(extra.empty()) << "extra: " << testing::PrintToString(extra);

    // And each one is reachable the way a consumer looks it up.
    ProducerApi &api = ProducerApi::get();
    for (const auto &name : expected) EXPECT_NE(api.symbol(name.c_str()), nullptr) << name;
}
