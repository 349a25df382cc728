// Sessions of a small server, written in C++ with memm.hpp.
//
// Each connection holds its session record through memm::ref (a copy is one
// more holder, destruction one fewer; the last one gives the slot back) and
// its peer's name as a memm::dynstring. Statistics that must change together
// are updated under a memm::lock_guard. Requests hold a ticket from a pool
// of fixed size; a burst larger than that pool depletes it, and the library
// reports it: a log line, a dump file and a list file.
//
// To see the diagnostics in the terminal and keep the report files:
//     MEMM_LOG=stderr MEMM_REPORT_DIR=/tmp ./examples/sessions
#include <cstdio>
#include <string>
#include <vector>

#include "memm.hpp"

namespace {

struct session {
    uint32_t id;
    uint32_t requests;
    uint32_t bytes;
};

struct ticket {
    uint32_t session_id;
};

struct connection {
    memm::ref<session> s;
    memm::dynstring peer;
};

// Totals over all sessions; in a daemon, worker threads update them too.
struct totals {
    uint32_t requests;
    uint32_t bytes;
} g_totals;

// How object listings show a session.
void print_session(void *obj, memm_print_fn print) {
    const auto *s = static_cast<const session *>(obj);
    print(" session %u: %u requests, %u bytes", s->id, s->requests, s->bytes);
}

} // namespace

int main() {
    if (memm_init(16, 1) != MEMM_OK)
        return 1;
    memm_pool_options options{};
    options.print2 = print_session;
    // Pool names are kept by pointer: string literals are the simple choice.
    const uint32_t sessions = memm_initpool("sessions", 4, sizeof(session), &options);
    const uint32_t tickets = memm_initpool("tickets", 4, sizeof(ticket), nullptr);
    const uint32_t names = dynstr_initpool("peer_names", 16, 1024);
    if (sessions == MEMM_INVALID_POOL || tickets == MEMM_INVALID_POOL || names == MEMM_INVALID_POOL)
        return 1;
    memm_disallow_expansion(tickets); // a hard limit on requests in flight

    // Six connections where four were planned: the session pool grows.
    std::vector<connection> connections;
    for (uint32_t id = 1; id <= 6; id++) {
        connection c{memm::ref<session>::alloc(sessions), memm::dynstring(names, "10.0.0." + std::to_string(id))};
        if (!c.s || !c.peer)
            return 1;
        c.s->id = id;
        connections.push_back(std::move(c));
    }

    // A worker still uses session 2 when its connection closes.
    memm::ref<session> worker = connections[1].s;
    connections.erase(connections.begin() + 1);
    std::printf("session %u outlives its connection: %u holder(s)\n", worker->id, memm_get_refcount(worker.get()));

    // A burst: every connection sends a request, each needs a ticket.
    std::vector<memm::ref<ticket>> in_flight;
    for (connection &c : connections) {
        memm::ref<ticket> t = memm::ref<ticket>::alloc(tickets);
        if (!t) {
            std::printf("request from %s refused: no ticket left\n", c.peer.str().c_str());
            continue;
        }
        t->session_id = c.s->id;
        in_flight.push_back(std::move(t));
        memm::lock_guard hold("session statistics"); // the session and the totals agree
        c.s->requests++;
        c.s->bytes += 512;
        g_totals.requests++;
        g_totals.bytes += 512;
    }
    connections[0].peer.assign("gateway.lan"); // the peer's name was resolved
    std::printf("session 1 now talks to %s; %u requests, %u bytes in all\n\n", connections[0].peer.str().c_str(),
                g_totals.requests, g_totals.bytes);

    std::printf("Pool usage:\n");
    memm_print_stats(nullptr);
    std::printf("Sessions:");
    memm_print_objects("sessions");
    return 0;
}
