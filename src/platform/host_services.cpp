// The common library's user and membership shorthands.
#include "platform/host_services.h"

#include "platform/directory.h"
#include "platform/registry.h"

namespace platform {

std::string do_get_user(const plist::Dict* context, int, int) {
  return has<Requester>() ? get<Requester>().user_for(context) : std::string();
}

bool does_user_belong_to_group(const std::string& user, const std::string& group) {
  if (user.empty() || !has<Directory>()) return false;
  return get<Directory>().is_member(user, group);
}

}  // namespace platform
