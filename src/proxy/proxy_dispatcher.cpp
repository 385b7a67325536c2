#include "proxy/proxy_dispatcher.h"

namespace Vorl {

BusLoop proxyDispatcher;

} // namespace Vorl
