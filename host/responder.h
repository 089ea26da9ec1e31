// The hardware side that confirms main multicast requests (responder.cpp).
#pragma once

namespace host {

// Confirm the requests in `member`'s TOPO_DB (0: no member) from now on.
void start_responder(int member);

}  // namespace host
