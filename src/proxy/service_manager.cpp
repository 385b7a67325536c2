#include "proxy/service_manager.h"

#include "common/strings.h"

#include <systemd/sd-daemon.h>

namespace Vorl {

void ServiceManager::ready() {
    shown = "STATUS=Relays: 0";
    sd_notify(0, ("READY=1\n" + shown).c_str());
}

void ServiceManager::stopping() {
    sd_notify(0, "STOPPING=1\nSTATUS=Stopping");
}

void ServiceManager::showActivity(std::size_t relays,
                                  std::optional<std::uint32_t> listeningSession) {
    std::string status = Utils::joinString("STATUS=Relays: ", relays);
    if (listeningSession)
        status += Utils::joinString(", admitting a client to session ", *listeningSession);
    if (status == shown)
        return;
    sd_notify(0, status.c_str());
    shown = std::move(status);
}

} // namespace Vorl
