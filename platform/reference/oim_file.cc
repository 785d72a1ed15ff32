// What stands in the file comes from a disk and may be anything: a tunnel is taken when each of its members is of its
// type and range, and the file only when every tunnel is.
#include "platform/reference/oim_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#include "platform/im.h"
#include "platform/ip.h"
#include "platform/reference/parse.h"

namespace ref {
namespace {

using nlohmann::json;

json to_json(const Tunnel &tunnel) {
  return {{"if_index", tunnel.if_index},
          {"iod", tunnel.iod},
          {"admin_up", tunnel.admin_up},
          {"vrf", tunnel.vrf_name},
          {"mtu", tunnel.mtu},
          {"source", ip_print_addr(tunnel.source)},
          {"destination", ip_print_addr(tunnel.destination)}};
}

// A member of an object when it is a number up to `limit`.
std::optional<uint32_t> number_in(const json &object, const char *name, uint32_t limit) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_number_unsigned() || found->get<uint64_t>() > limit) return std::nullopt;
  return found->get<uint32_t>();
}

std::optional<std::string> text_in(const json &object, const char *name, size_t limit) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_string() || found->get_ref<const std::string &>().size() > limit)
    return std::nullopt;
  return found->get<std::string>();
}

std::optional<ip_addr_t> address_in(const json &object, const char *name) {
  const auto text = text_in(object, name, 15);
  return text ? parse_address(*text) : std::nullopt;
}

std::optional<Tunnel> from_json(const json &object) {
  if (!object.is_object()) return std::nullopt;
  const auto if_index = number_in(object, "if_index", UINT32_MAX);
  const auto iod = number_in(object, "iod", 0xFFFF);
  const auto admin_up = number_in(object, "admin_up", 0xFF);
  const auto mtu = number_in(object, "mtu", UINT32_MAX);
  const auto vrf = text_in(object, "vrf", VRF_NAME_MAX);
  const auto source = address_in(object, "source"), destination = address_in(object, "destination");
  if (!if_index || !iod || !admin_up || !mtu || !vrf || !source || !destination ||
      im_is_ifindex_mvpn_tunnel(*if_index) == 0)
    return std::nullopt;
  return Tunnel{*if_index, *iod, static_cast<uint8_t>(*admin_up), *vrf, *mtu, *source, *destination, false};
}

// 0 when the text is on the disk, or an error number.
int write_through(const std::string &path, const std::string &text) {
  const int file = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  if (file < 0) return errno;
  int error = 0;
  for (size_t done = 0; error == 0 && done < text.size();) {
    const ssize_t written = ::write(file, text.data() + done, text.size() - done);
    if (written < 0) error = errno;
    done += static_cast<size_t>(std::max<ssize_t>(written, 0));
  }
  if (error == 0 && ::fsync(file) != 0) error = errno;
  if (::close(file) != 0 && error == 0) error = errno;
  return error;
}

}  // namespace

std::optional<std::vector<Tunnel>> read_tunnels(const std::string &path) {
  std::ifstream in(path);
  if (!in) return errno == ENOENT ? std::optional(std::vector<Tunnel>{}) : std::nullopt;
  const json document = json::parse(in, nullptr, false);
  if (!document.is_object() || !document.contains("tunnels") || !document["tunnels"].is_array()) return std::nullopt;
  std::vector<Tunnel> read;
  for (const json &object : document["tunnels"]) {
    const auto tunnel = from_json(object);
    if (!tunnel) return std::nullopt;
    read.push_back(*tunnel);
  }
  return read;
}

std::string write_tunnels(const std::string &path, const std::map<if_index_t, Tunnel> &tunnels) {
  json all = json::array();
  for (const auto &[if_index, tunnel] : tunnels) all.push_back(to_json(tunnel));
  const std::string fresh = path + ".new";
  const std::string text = json{{"tunnels", all}}.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
  int error = write_through(fresh, text);
  if (error == 0 && std::rename(fresh.c_str(), path.c_str()) != 0) error = errno;
  return error == 0 ? "" : std::strerror(error);
}

}  // namespace ref
