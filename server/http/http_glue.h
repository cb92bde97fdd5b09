// Internal to the HTTP core: libmicrohttpd's callbacks (http_server.cpp),
// which the daemon's start (http_run.cpp) hands to the library. Each `cls`
// is the server's HttpServer::Impl. Not part of the server's interface.
//
// Thread-safety: called by the library's event threads.
#ifndef TAVO_SERVER_HTTP_GLUE_H_
#define TAVO_SERVER_HTTP_GLUE_H_

#include <microhttpd.h>

#include <chrono>
#include <cstdarg>
#include <cstddef>

#include "http/http_server.h"

namespace tavo_server {
namespace http_glue {

inline std::chrono::milliseconds Seconds(int s) { return std::chrono::milliseconds(1000LL * s); }

// A connection opened or closed: its deadlines and counters.
void OnConnection(void* cls, MHD_Connection* connection, void** socket_context,
                  MHD_ConnectionNotificationCode toe);
// A request line has arrived: a kept-alive connection's read time restarts.
void* OnRequestLine(void* cls, const char* uri, MHD_Connection* connection);
// A request's head, body and answer.
MHD_Result OnRequest(void* cls, MHD_Connection* connection, const char* url, const char* method,
                     const char* version, const char* upload_data, size_t* upload_data_size,
                     void** con_cls);
// A request is done: the access log, the counters, the connection's idle time.
void OnCompleted(void* cls, MHD_Connection* connection, void** con_cls,
                 MHD_RequestTerminationCode code);
// The library's own messages, to standard error.
void OnLibraryError(void* cls, const char* format, va_list ap);

}  // namespace http_glue
}  // namespace tavo_server

#endif  // TAVO_SERVER_HTTP_GLUE_H_
