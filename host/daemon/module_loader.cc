// Every symbol is bound when the library is loaded: a module that misses a service of the platform is refused at once
// rather than when the service is first needed.
#include "host/daemon/module_loader.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "platform/types.h"

namespace host {
namespace {

constexpr std::string_view kNoteOwner("mvpn", sizeof "mvpn");  // its NUL belongs to it
constexpr size_t kNotesMax = 4096;                             // bytes of a segment of notes that we read

size_t padded(size_t size) { return (size + 3) / 4 * 4; }

// The contract version in a segment of notes.
std::optional<uint32_t> version_in(const std::vector<char> &notes) {
  for (size_t at = 0; at + sizeof(ElfW(Nhdr)) <= notes.size();) {
    ElfW(Nhdr) header;
    std::memcpy(&header, &notes[at], sizeof header);
    at += sizeof header;
    const size_t left = notes.size() - at;
    if (header.n_namesz > left || header.n_descsz > left || padded(header.n_namesz) + header.n_descsz > left) break;
    const std::string_view owner(&notes[at], header.n_namesz);
    at += padded(header.n_namesz);
    uint32_t version;
    if (owner == kNoteOwner && header.n_type == PLATFORM_CONTRACT_NOTE && header.n_descsz == sizeof version) {
      std::memcpy(&version, &notes[at], sizeof version);
      return version;
    }
    at += padded(header.n_descsz);
  }
  return std::nullopt;
}

// The contract version that a module was built for; none when it does not say. Read from the file: a module of another
// version may need services that are not here, and the loader would name the first of those instead.
std::optional<uint32_t> contract_version_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  ElfW(Ehdr) header{};
  if (!file.read(reinterpret_cast<char *>(&header), sizeof header)) return std::nullopt;
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_phentsize != sizeof(ElfW(Phdr)))
    return std::nullopt;
  for (unsigned i = 0; i < header.e_phnum; i++) {
    ElfW(Phdr) segment;
    file.seekg(static_cast<std::streamoff>(header.e_phoff + i * sizeof segment));
    if (!file.read(reinterpret_cast<char *>(&segment), sizeof segment)) return std::nullopt;
    if (segment.p_type != PT_NOTE || segment.p_filesz > kNotesMax) continue;
    std::vector<char> notes(segment.p_filesz);
    file.seekg(static_cast<std::streamoff>(segment.p_offset));
    if (!file.read(notes.data(), static_cast<std::streamsize>(notes.size()))) return std::nullopt;
    if (const auto version = version_in(notes)) return version;
  }
  return std::nullopt;
}

void compare_versions(const std::string &path) {
  const std::optional<uint32_t> version = contract_version_of(path);
  if (version && *version != PLATFORM_CONTRACT_VERSION)
    throw std::runtime_error(path + " is for version " + std::to_string(*version) +
                             " of the platform contract, this host for version " +
                             std::to_string(PLATFORM_CONTRACT_VERSION));
}

template <typename Pointer>
void find(void *library, const char *name, Pointer *entry) {
  void *symbol = dlsym(library, name);
  if (symbol == nullptr) throw std::runtime_error(std::string("the module has no ") + name);
  *entry = reinterpret_cast<Pointer>(symbol);
}

void find_entries(void *library, ref::Module *entries) {
  find(library, "mvpn_process_msg", &entries->process_msg);
  find(library, "mvpn_interface_status", &entries->interface_status);
  find(library, "mvpn_interface_create", &entries->interface_create);
  find(library, "mvpn_process_address_change", &entries->process_address_change);
  find(library, "mvpn_process_mrib_mts_update_route_ack", &entries->update_route_ack);
  find(library, "mvpn_process_mrib_mdt_notify", &entries->mdt_notify);
  find(library, "mvpn_process_clear_route_notify", &entries->clear_route_notify);
  find(library, "mvpn_mrib_repopulate_mdt_routes", &entries->repopulate);
  find(library, "mvpn_process_mrib_join_notify", &entries->mrib_join);
  find(library, "mvpn_process_mrib_prune_notify", &entries->mrib_prune);
  find(library, "mvpn_process_pim_route_delete", &entries->route_delete);
  find(library, "mvpn_process_mrib_rpf_notify", &entries->rpf_notify);
  find(library, "mvpn_data_mdt_map_local_source_to_receiver", &entries->map_local_source);
  find(library, "mvpn_data_mdt_unmap_local_source_from_receiver", &entries->unmap_local_source);
  find(library, "mvpn_stats_check", &entries->stats_check);
  find(library, "mvpn_process_data_mdt_switchover_expiry", &entries->switchover_expiry);
  find(library, "mvpn_send_data_mdt_join_packet", &entries->send_join_packet);
}

}  // namespace

LoadedModule load_module(const std::string &path) {
  compare_versions(path);
  void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error(dlerror());
  LoadedModule module;
  find(library, "mvpn_init", &module.init);
  find(library, "mvpn_deinit", &module.deinit);
  find(library, "mvpn_init_cli", &module.init_cli);
  find(library, "mvpn_cli_vrf_done", &module.cli_vrf_done);
  find(library, "mvpn_leave_vrf", &module.leave_vrf);
  find(library, "mvpn_cli_done", &module.cli_done);
  find(library, "mvpn_unconditional_announce_data_mdt_join", &module.announce);
  find(library, "pim_glb_trace_buffers", &module.trace_buffers);
  find(library, "pim_mvpn_detail_debug_flag", &module.detail_debug);
  find(library, "mvpn_mti_status_str", &module.mti_status_names);
  find(library, "mvpn_data_mdt_recv_cache_limit", &module.recv_cache_limit);
  find_entries(library, &module.entries);
  return module;
}

}  // namespace host
