// Destinations that a server-side rr service can name without knowing a client id. `all` means
// every client: answers to it go to the service's broadcast topic. Turn a value into the
// destination text that response_to_service() takes with destination_publish_client_t.
#pragma once

namespace comunication::utility {

enum class destination_publish_server_t : int { all = 0 };

} // namespace comunication::utility
