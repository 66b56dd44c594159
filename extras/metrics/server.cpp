#include "server.h"

#include <microhttpd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>

#include "exposition.h"
#include "kestrelexp/service.h"
#include "page_files.h"
#include "readiness.h"
#include "request.h"
#include "summary.h"

namespace metrics {

namespace {

constexpr unsigned most_connections = 64;
constexpr unsigned silence_seconds = 10;
constexpr size_t connection_bytes = size_t{16} * 1024;  // a request line and its headers, and more
constexpr int backlog = 64;

struct answer {
    unsigned status;
    const char* type;
    std::string_view bytes;
    std::string text;  // where bytes is empty
};

struct header {
    const char* name;
    const char* value;
};
// The page asks nobody but this server for anything, and nobody may put it into a frame.
constexpr header every_header[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
     "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cache-Control", "no-store"},
};
constexpr const char* plain_type = "text/plain; charset=utf-8";
constexpr const char* json_type = "application/json";

double time_now() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
}

answer answer_summary(const http_server& server, MHD_Connection* connection) {
    const char* const text =
        MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "since");
    const auto since = text != nullptr ? parse_since(text) : 0.0;
    if (!since)
        return {MHD_HTTP_BAD_REQUEST, plain_type, {}, "since is no time in seconds\n"};
    return {MHD_HTTP_OK,
            json_type,
            {},
            summary_json(take_readings(), *server.source, {time_now(), *since, server.self})};
}

answer answer_readiness() {
    const std::vector<missing_part> missing = missing_parts(take_readings());
    return {missing.empty() ? unsigned{MHD_HTTP_OK} : unsigned{MHD_HTTP_SERVICE_UNAVAILABLE},
            json_type,
            {},
            readiness_json(missing)};
}

answer answer_page_file(const char* path) {
    const page_file* const file = find_page_file(path);
    return {MHD_HTTP_OK, file->type, file->bytes, {}};
}

answer make_answer(const http_server& server, MHD_Connection* connection, const char* method,
                   const char* path) {
    switch (target_of(method, path)) {
        case target::page_file:
            return answer_page_file(path);
        case target::metrics:
            return {MHD_HTTP_OK,
                    exposition_type,
                    {},
                    exposition_text(take_readings(), take_process_readings())};
        case target::health:
            return {MHD_HTTP_OK, plain_type, "ok\n", {}};
        case target::readiness:
            return answer_readiness();
        case target::summary:
            return answer_summary(server, connection);
        case target::wrong_method:
            return {MHD_HTTP_METHOD_NOT_ALLOWED, plain_type, "GET and HEAD only\n", {}};
        case target::not_found:
            break;
    }
    return {MHD_HTTP_NOT_FOUND, plain_type, "there is nothing of this name\n", {}};
}

MHD_Result send_answer(MHD_Connection* connection, const answer& what) {
    const std::string_view bytes = what.bytes.empty() ? std::string_view(what.text) : what.bytes;
    // The library takes a pointer to bytes that it does not change, as one to bytes that it might.
    MHD_Response* const response = MHD_create_response_from_buffer(
        bytes.size(), const_cast<char*>(bytes.data()),
        what.bytes.empty() ? MHD_RESPMEM_MUST_COPY : MHD_RESPMEM_PERSISTENT);
    if (response == nullptr)
        return MHD_NO;
    // A header that finds no memory is missed by nobody but the browser's own precautions.
    (void)MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, what.type);
    for (const header& one : every_header)
        (void)MHD_add_response_header(response, one.name, one.value);
    if (what.status == MHD_HTTP_METHOD_NOT_ALLOWED)
        (void)MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, allowed_methods);
    const MHD_Result result = MHD_queue_response(connection, what.status, response);
    MHD_destroy_response(response);
    return result;
}

// Whether a body follows the headers; no request of ours has one.
bool has_body(MHD_Connection* connection) {
    const char* const length =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    return MHD_lookup_connection_value(connection, MHD_HEADER_KIND,
                                       MHD_HTTP_HEADER_TRANSFER_ENCODING) != nullptr ||
           (length != nullptr && std::strcmp(length, "0") != 0);
}

// Called with the headers, and again when the request is complete. One that is refused, or has a
// body, is answered at once: the library then closes the connection.
MHD_Result handle(void* context, MHD_Connection* connection, const char* path, const char* method,
                  const char*, const char*, size_t*, void** state) {
    static char is_known;
    const bool is_first = *state == nullptr;
    *state = &is_known;
    try {
        const target what = target_of(method, path);
        const bool is_refused = what == target::not_found || what == target::wrong_method;
        if (is_first && !is_refused && has_body(connection))
            return send_answer(
                connection,
                {MHD_HTTP_CONTENT_TOO_LARGE, plain_type, "a request has no body here\n", {}});
        if (is_first && !is_refused)
            return MHD_YES;
        return send_answer(
            connection, make_answer(*static_cast<http_server*>(context), connection, method, path));
    } catch (const std::exception& fault) {
        verbose_msg(-1, "metrics: no answer to a request: %s", fault.what());
        return MHD_NO;  // closes the connection
    }
}

int descriptor_of(MHD_Connection* connection) {
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

void note_connection(void* context, MHD_Connection* connection, void**,
                     MHD_ConnectionNotificationCode what) {
    connection_list& list = static_cast<http_server*>(context)->connections;
    if (what == MHD_CONNECTION_NOTIFY_STARTED)
        list.open(descriptor_of(connection), connection_list::clock::now());
    else
        list.close(descriptor_of(connection));
}

void note_answered(void* context, MHD_Connection* connection, void**, MHD_RequestTerminationCode) {
    static_cast<http_server*>(context)->connections.restart(descriptor_of(connection),
                                                            connection_list::clock::now());
}

// No path or parameter of ours has an escape; one that is taken as it stands cannot hide anything,
// a byte of 0 least of all.
size_t leave_escapes(void*, MHD_Connection*, char* text) {
    return std::strlen(text);
}

// What the library has to say is about clients: refused requests, broken connections.
__attribute__((format(printf, 2, 0))) void log_detail(void*, const char* format,
                                                      va_list arguments) {
    char text[512];
    (void)std::vsnprintf(text, sizeof text, format, arguments);  // cut where it is too long
    text[std::strcspn(text, "\n")] = '\0';
    verbose_msg(4, "metrics: %s", text);
}

// A descriptor that listens, or -1 with errno.
int listen_on(const listen_address& where) {
    const int descriptor =
        socket(where.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0)
        return -1;
    const int on = 1;
    const auto* const address = reinterpret_cast<const sockaddr*>(&where.address);
    if (setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
        bind(descriptor, address, where.length) == 0 && listen(descriptor, backlog) == 0)
        return descriptor;
    const int fault = errno;
    close(descriptor);
    errno = fault;
    return -1;
}

const char* advice_for(int fault) {
    switch (fault) {
        case EADDRINUSE:
            return "Choose another port=, or end the program that has it (ss -ltnp shows which)";
        case EADDRNOTAVAIL:
            return "Choose an address= of this machine (ip address shows them)";
        case EACCES:
            return "Choose a port= of 1024 or above";
        default:
            return "Choose another address= or port=";
    }
}

}  // namespace

bool start_server(http_server& server, const listen_address& where) {
    const int descriptor = listen_on(where);
    if (descriptor < 0) {
        verbose_msg(-1, "metrics: cannot listen on %s: %s. %s", where.text.c_str(),
                    std::strerror(errno), advice_for(errno));
        return false;
    }
    const MHD_Daemon* const daemon = MHD_start_daemon(
        MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_USE_ERROR_LOG, 0, nullptr, nullptr,
        handle, &server, MHD_OPTION_EXTERNAL_LOGGER, log_detail, nullptr, MHD_OPTION_LISTEN_SOCKET,
        descriptor, MHD_OPTION_CONNECTION_LIMIT, most_connections, MHD_OPTION_CONNECTION_TIMEOUT,
        silence_seconds, MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_bytes,
        MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_UNESCAPE_CALLBACK, leave_escapes, nullptr,
        MHD_OPTION_NOTIFY_CONNECTION, note_connection, &server, MHD_OPTION_NOTIFY_COMPLETED,
        note_answered, &server, MHD_OPTION_END);
    if (daemon == nullptr) {
        verbose_msg(-1, "metrics: the HTTP server on %s cannot be started", where.text.c_str());
        close(descriptor);
        return false;
    }
    return true;
}

}  // namespace metrics
