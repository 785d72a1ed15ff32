// Two kinds of changes become notifications: the default MDT's and data MDTs'. The rest is for operators of this
// machine.
#include "host/daemon/notifications.h"

#include <variant>

#include "host/language/values.h"

namespace host {

std::optional<snmp::Notification> notification_of(const Change &change) {
  if (const auto *vrf = std::get_if<VrfChange>(&change.what))
    return snmp::vrf_notification(vrf->vrf, vrf->before, vrf->after, address_text(vrf->group));
  if (const auto *mdt = std::get_if<DataMdtChange>(&change.what))
    return snmp::data_mdt_notification({mdt->vrf, mdt->sent, mdt->in_use,
                                        address_text(mdt->sent ? mdt->customer_source : mdt->source),
                                        address_text(mdt->customer_group), address_text(mdt->group)});
  return std::nullopt;
}

}  // namespace host
