// Reading sections by name.
#include "tests/module/elf_file.h"

#include <elf.h>

#include <cstring>
#include <stdexcept>

#include "tests/module/fixture.h"

namespace module_test {
namespace {

template <typename T>
T record_at(const std::string &bytes, size_t place) {
  T out;
  if (place > bytes.size() || bytes.size() - place < sizeof(T))
    throw std::runtime_error("the file ends within a record");
  memcpy(&out, bytes.data() + place, sizeof(T));
  return out;
}

std::string text_at(const std::string &strings, size_t place) {
  return place < strings.size() ? std::string(strings.c_str() + place) : std::string();
}

}  // namespace

elf_file::elf_file(const std::string &path) : bytes_(read_file(path)) {
  const auto header = record_at<Elf64_Ehdr>(bytes_, 0);
  if (memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64)
    throw std::runtime_error("no 64-bit ELF file: " + path);
}

std::string elf_file::section(const std::string &name) const {
  const auto header = record_at<Elf64_Ehdr>(bytes_, 0);
  const auto nth = [&](size_t i) {
    return record_at<Elf64_Shdr>(bytes_, header.e_shoff + i * header.e_shentsize);
  };
  const Elf64_Shdr names = nth(header.e_shstrndx);
  for (size_t i = 0; i < header.e_shnum; i++) {
    const Elf64_Shdr found = nth(i);
    if (name == text_at(bytes_, names.sh_offset + found.sh_name))
      return bytes_.substr(found.sh_offset, found.sh_size);
  }
  return {};
}

std::vector<elf_symbol> elf_file::symbols(const std::string &table,
                                          const std::string &names) const {
  const std::string records = section(table);
  const std::string strings = section(names);
  std::vector<elf_symbol> out;
  for (size_t at = 0; at < records.size(); at += sizeof(Elf64_Sym)) {
    const auto symbol = record_at<Elf64_Sym>(records, at);
    const std::string name = text_at(strings, symbol.st_name);
    if (!name.empty())
      out.push_back(
          {name, symbol.st_shndx != SHN_UNDEF, ELF64_ST_BIND(symbol.st_info) == STB_WEAK});
  }
  return out;
}

std::vector<elf_symbol> elf_file::dynamic_symbols() const { return symbols(".dynsym", ".dynstr"); }
std::vector<elf_symbol> elf_file::all_symbols() const { return symbols(".symtab", ".strtab"); }

std::vector<std::string> elf_file::needed() const {
  const std::string records = section(".dynamic");
  const std::string strings = section(".dynstr");
  std::vector<std::string> out;
  for (size_t at = 0; at < records.size(); at += sizeof(Elf64_Dyn)) {
    const auto entry = record_at<Elf64_Dyn>(records, at);
    if (entry.d_tag == DT_NEEDED) out.push_back(text_at(strings, entry.d_un.d_val));
  }
  return out;
}

std::vector<std::string> elf_file::needed_versions() const {
  const std::string records = section(".gnu.version_r");
  const std::string strings = section(".dynstr");
  std::vector<std::string> out;
  for (size_t at = 0; at < records.size();) {
    const auto library = record_at<Elf64_Verneed>(records, at);
    size_t version_at = at + library.vn_aux;
    for (size_t i = 0; i < library.vn_cnt; i++) {
      const auto version = record_at<Elf64_Vernaux>(records, version_at);
      out.push_back(text_at(strings, version.vna_name));
      version_at += version.vna_next;
    }
    if (library.vn_next == 0) break;
    at += library.vn_next;
  }
  return out;
}

size_t elf_file::constructors() const { return section(".init_array").size() / sizeof(void *); }

}  // namespace module_test
