// Loads libpq and calls it through twelve required and two optional functions that are looked up in it. Takes
// the place of one function that libpq calls itself.
#include "services/tarn_postgreclient.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "record/tarn_config.h"
#include "services/tarn_socket_deadline.h"
#include "support/tarn_deadline.h"
#include "support/tarn_dynamic_library.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

/// Status codes of the library's interface.
constexpr int connection_ok = 0;
constexpr int tuples_ok = 2;

/// The functions of the library, in the order in which they are looked up.
struct {
    pg_conn* (*connectdb)(const char* conninfo);  // required, but never called
    pg_conn* (*setdbLogin)(const char* host, const char* port, const char* options, const char* tty,
                           const char* database, const char* user, const char* password);
    int (*status)(const pg_conn* connection);
    pg_result* (*exec)(pg_conn* connection, const char* statement);
    char* (*getvalue)(const pg_result* result, int row, int column);
    int (*resultStatus)(const pg_result* result);
    int (*ntuples)(const pg_result* result);
    int (*nfields)(const pg_result* result);
    char* (*fname)(const pg_result* result, int column);
    char* (*errorMessage)(const pg_conn* connection);
    void (*clear)(pg_result* result);
    void (*finish)(pg_conn* connection);
    int (*socket)(const pg_conn* connection);  // this and the next may be null
    void (*(*setNoticeProcessor)(pg_conn* connection, void (*processor)(void* data, const char* message),
                                 void* data))(void* data, const char* message);
} library;

/// Looks up a function; null when the library lacks it.
template <typename Function>
void look_up_optional(void* handle, const char* name, Function& function) {
    function = reinterpret_cast<Function>(tarn::find_function(handle, name));
}

bool look_up_all(void* handle) {
    look_up_optional(handle, "PQsocket", library.socket);
    look_up_optional(handle, "PQsetNoticeProcessor", library.setNoticeProcessor);
    return tarn::look_up(handle, "PQconnectdb", library.connectdb) &&
           tarn::look_up(handle, "PQsetdbLogin", library.setdbLogin) &&
           tarn::look_up(handle, "PQstatus", library.status) &&
           tarn::look_up(handle, "PQexec", library.exec) &&
           tarn::look_up(handle, "PQgetvalue", library.getvalue) &&
           tarn::look_up(handle, "PQresultStatus", library.resultStatus) &&
           tarn::look_up(handle, "PQntuples", library.ntuples) &&
           tarn::look_up(handle, "PQnfields", library.nfields) &&
           tarn::look_up(handle, "PQfname", library.fname) &&
           tarn::look_up(handle, "PQerrorMessage", library.errorMessage) &&
           tarn::look_up(handle, "PQclear", library.clear) &&
           tarn::look_up(handle, "PQfinish", library.finish);
}

using hmac_init = int (*)(void* context, const void* key, int length, const void* method, void* engine);

/// libcrypto's function, found through the library at this address, which depends on it.
hmac_init original_of(const void* caller) {
    Dl_info info{};
    if (::dladdr(caller, &info) == 0) return nullptr;
    void* const library_of_caller = ::dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    void* const found =
        library_of_caller != nullptr ? tarn::find_function(library_of_caller, "HMAC_Init_ex") : nullptr;
    return reinterpret_cast<hmac_init>(found);
}

std::string_view view_of(const char* text) {
    return text != nullptr ? text : "";
}

/// Sets a variable that the library reads, unless the environment already has it.
void set_default(const char* name, const char* value) {
    constexpr int keep = 0;
    ::setenv(name, value, keep);
}

/// Discards the server's notices. The library would print them, however many there are.
void ignore_notice(void* /*data*/, const char* /*message*/) {}

/// Redirects standard error to /dev/null. The library prints the notices of a log-in there, before a notice
/// processor can be set.
class silenced_stderr final {
  public:
    silenced_stderr() : saved_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
        const tarn::unique_fd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        if (saved_ && null) ::dup2(null.get(), STDERR_FILENO);
    }
    ~silenced_stderr() {
        if (saved_) ::dup2(saved_.get(), STDERR_FILENO);
    }
    silenced_stderr(const silenced_stderr&) = delete;
    silenced_stderr& operator=(const silenced_stderr&) = delete;

  private:
    tarn::unique_fd saved_;
};

}  // namespace

int init_postgre_lib() {
    const std::string path(tarn::text_of(config.postgre_lib));
    std::printf("libpq: %s\n", path.c_str());
    set_default("PGCONNECT_TIMEOUT", std::to_string(tarn::timeout_of(config.counter_tcp_to).count()).c_str());
    // Kerberos would open a credential cache in /tmp, where any local user may have put a pipe.
    set_default("PGGSSENCMODE", "disable");
    set_default("KRB5CCNAME", "MEMORY:");
    config.postgre_handle = tarn::open_library(path.c_str());
    return config.postgre_handle != nullptr && look_up_all(config.postgre_handle) ? 1 : 0;
}

/// Takes the place of libcrypto's function for all libraries. libpq calls it for each iteration of a SCRAM
/// login. The server chooses how many iterations there are, up to 2^31, which take more than an hour;
/// meanwhile libpq looks at no socket. Once the time of the call is over, this function fails, and with it
/// the login.
extern "C" [[gnu::used]] int HMAC_Init_ex(void* context, const void* key, int length, const void* method,
                                          void* engine) {
    static const hmac_init original = original_of(__builtin_return_address(0));
    const bool may_go_on = original != nullptr && !tarn::has_guarded_call_expired();
    return may_go_on ? original(context, key, length, method, engine) : 0;
}

namespace tarn {

void load_postgre() {
    if (config.postgre_on == 0) return;
    std::printf("Postrgre is on\n");
    const std::string path(text_of(config.postgre_lib));
    if (init_postgre_lib() != 0) {
        std::printf("Postgre found and loaded = %s\n", path.c_str());
        return;
    }
    std::printf("Error loading postgre = %s\n", path.c_str());
    if (config.postgre_handle != nullptr) std::printf("Closing libpostgre\n");
    close_library(config.postgre_handle);
}

void close_postgre() {
    if (!is_postgre_loaded()) return;
    std::printf("Closing libpq\n");
    close_library(config.postgre_handle);
}

bool is_postgre_loaded() {
    return config.postgre_handle != nullptr;
}

void postgre_finisher::operator()(pg_conn* connection) const {
    library.finish(connection);
}

postgre_connection postgre_log_in(const char* host, const char* port, const char* user,
                                  const char* password) {
    const silenced_stderr silence;
    const auto timeout = timeout_of(config.counter_tcp_to);
    const socket_deadline deadline(next_descriptor(), timeout, 2 * timeout);
    postgre_connection connection(
        library.setdbLogin(host, port, nullptr, nullptr, "postgres", user, password));
    if (connection && library.setNoticeProcessor != nullptr)
        library.setNoticeProcessor(connection.get(), ignore_notice, nullptr);
    return connection;
}

int postgre_socket(const postgre_connection& connection) {
    return library.socket != nullptr ? library.socket(connection.get()) : -1;
}

bool postgre_is_connected(const postgre_connection& connection) {
    return connection && library.status(connection.get()) == connection_ok;
}

const char* postgre_error_text(const postgre_connection& connection) {
    return connection ? library.errorMessage(connection.get()) : "out of memory";
}

postgre_result::postgre_result(const postgre_connection& connection, const char* statement)
    : result_(library.exec(connection.get(), statement)) {}

postgre_result::~postgre_result() {
    if (result_ != nullptr) library.clear(result_);
}

postgre_result::operator bool() const {
    return library.resultStatus(result_) == tuples_ok;
}

int postgre_result::rows() const {
    return library.ntuples(result_);
}

int postgre_result::columns() const {
    return library.nfields(result_);
}

std::string_view postgre_result::name(int column) const {
    return view_of(library.fname(result_, column));
}

std::string_view postgre_result::text(int row, int column) const {
    const bool exists = row < rows() && column < columns();
    return exists ? view_of(library.getvalue(result_, row, column)) : std::string_view();
}

}  // namespace tarn
