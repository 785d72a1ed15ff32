// The conditions, and their order, are those that the module tests before it brings a tunnel up; what it waits for then
// follows from the status of the tunnel interface.
#include "host/daemon/readiness.h"

#include "platform/im.h"
#include "platform/l3vm.h"
#include "routing/pim/mvpn/mvpn.h"

namespace host {
namespace {

#define STATUS_TEXT(name, value, text) text,
constexpr const char *kStatusTexts[] = {MVPN_MTI_STATUS_LIST(STATUS_TEXT)};
#undef STATUS_TEXT

const mvpn_cibtype *context_of(const std::string &vrf) {
  const pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.c_str());
  return pcib == nullptr ? nullptr : pcib->mvpn;
}

std::string why_no_source(const Router &router, const mvpn_cibtype &mvpn) {
  if (mvpn.mdt_source_ifname[0] != '\0')
    return "its MDT source, interface " + std::string(mvpn.mdt_source_ifname) + ", does not exist";
  const Block *bgp = router.running().find({Mode::bgp, ""});
  const std::string *update_source = bgp == nullptr ? nullptr : bgp->value(Command::update_source, "interface");
  if (update_source != nullptr) return "BGP's update source, interface " + *update_source + ", does not exist";
  return "it has no MDT source: neither 'mdt source' nor BGP's 'update-source' names one";
}

// Empty: the VRF is ready.
std::string unmet_condition(const Router &router, const mvpn_cibtype &mvpn) {
  l3vm_context_info info{};
  if (mvpn.pcib->context_id == VRF_CONTEXT_ID_NONE || l3vm_get_context_info(mvpn.pcib->context_id, &info) == 0)
    return "the VRF manager does not know it";
  if (info.state != L3VM_STATE_UP) return "the VRF is down";
  if (mvpn.bgp_rd_set == 0) return "it has no route distinguisher ('rd')";
  if (mvpn.mdt_source_iod == 0) return why_no_source(router, mvpn);
  const std::string source = "its MDT source, interface " + std::string(ksink_im_get_if_name(mvpn.mdt_source_iod));
  if (im_is_if_up(mvpn.mdt_source_iod) == 0) return source + ", is down";
  if (mvpn.mdt_source_addr == 0) return source + ", has no address";
  return mvpn.mdt_default_group == 0 ? "its default MDT group has been removed" : "";
}

std::string what_is_awaited(const Router &router, const mvpn_cibtype &mvpn) {
  switch (mvpn.mti_status) {
    case MVPN_MTI_CREATE_PENDING:
      return "the tunnel manager has not made the tunnel yet";
    case MVPN_MTI_UP_PENDING:
      if (router.forwarding().active() && !router.forwarding().connected())
        return "the tunnel is down: mvpn-forwarder is not connected at " + router.forwarding().socket();
      return "the tunnel is not up yet";
    case MVPN_MTI_DOWN_PENDING:
    case MVPN_MTI_DOWN_IN_PROGRESS:
      return "the default MDT is being taken apart";
    case MVPN_MTI_DELETE_PENDING:
      return "the tunnel is being deleted";
    default:
      return "no tunnel has been asked for yet";
  }
}

}  // namespace

std::string mti_status(const std::string &vrf) {
  const mvpn_cibtype *mvpn = context_of(vrf);
  return mvpn == nullptr ? "" : kStatusTexts[mvpn->mti_status];
}

std::string why_not_up(const Router &router, const std::string &vrf) {
  if (!router.running().feature_mvpn()) return "MVPN is switched off ('no feature mvpn')";
  const mvpn_cibtype *mvpn = context_of(vrf);
  if (mvpn == nullptr) return "it has no default MDT group ('mdt default')";
  if (mvpn->mti_status == MVPN_MTI_UP) return "";
  const std::string unmet = unmet_condition(router, *mvpn);
  return unmet.empty() ? what_is_awaited(router, *mvpn) : unmet;
}

}  // namespace host
