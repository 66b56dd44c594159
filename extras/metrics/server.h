// The HTTP server: one thread of libmicrohttpd, at most 64 connections, nothing but GET and HEAD.
// Every answer is made on that thread, from a look at the metrics and at the sampler.
#pragma once

#include <string>

#include "connections.h"
#include "sampler.h"
#include "settings.h"

namespace metrics {

struct http_server {
    sampler* source;
    std::string self;  // the value of this export's label
    connection_list connections;
};

// Listens and starts the thread, which inherits the caller's blocked signals. False after saying
// what is wrong. The server lives as long as the program.
bool start_server(http_server& server, const listen_address& where);

}  // namespace metrics
