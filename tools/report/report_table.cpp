// Every element that a report can have, with its unit, source and rule: the documents, the units that
// tarn-receive prints and the names of exported figures are taken from here.
#include "report_table.h"

#include <algorithm>

namespace {

constexpr report_row unexported(std::string_view key, bson type, std::string_view unit,
                                std::string_view meaning) {
    return {key, type, unit, "", 1, figure_rule::gauge, meaning};
}

constexpr report_row gauge(std::string_view key, bson type, std::string_view unit, std::string_view name,
                           std::string_view meaning, double scale = 1) {
    return {key, type, unit, name, scale, figure_rule::gauge, meaning};
}

constexpr report_row total(std::string_view key, std::string_view unit, std::string_view name,
                           std::string_view meaning) {
    return {key, bson::int64, unit, name, 1, figure_rule::total, meaning};
}

constexpr report_row percentage(std::string_view key, std::string_view unit, std::string_view name,
                                std::string_view meaning, bson type = bson::int64) {
    return {key, type, unit, name, 0.01, figure_rule::percentage, meaning};
}

constexpr report_row rate(std::string_view key, std::string_view unit, std::string_view name,
                          std::string_view meaning, double scale = 1) {
    return {key, bson::int64, unit, name, scale, figure_rule::rate, meaning};
}

constexpr report_row change(std::string_view key, std::string_view unit, std::string_view name,
                            std::string_view meaning) {
    return {key, bson::int64, unit, name, 1, figure_rule::change, meaning};
}

constexpr report_row rate32(std::string_view key, std::string_view unit, std::string_view name,
                            std::string_view meaning) {
    return {key, bson::int64, unit, name, 1, figure_rule::rate32, meaning};
}

constexpr report_row top_level_rows[] = {
    unexported("id", bson::int32, "",
               "configuration `id`; only when it is not 0. An id above 2^31 − 1 reads as negative"),
    unexported("uuid", bson::text, "", "configuration `uuid`; this and the next three only when `id` is 0"),
    unexported("server_name", bson::text, "", "configuration"),
    unexported("project_name", bson::text, "", "configuration"),
    unexported("project_secret", bson::text, "", "configuration, in clear; empty when not set"),
    unexported("name", bson::text, "", "always empty"),
    unexported("time", bson::int32, "", "wall clock since 1970-01-01 UTC as the document was begun"),
    gauge("interval", bson::int32, "seconds", "interval_seconds", "configuration `interval`"),
    unexported("version", bson::text, "", "version of the agent, \"0.6.3\""),
    unexported("ok", bson::int64, "",
               "1: the operating-system facts below were gathered; always 1 in a report"),
    unexported("os_bit", bson::text, "",
               "machine architecture, `machine` of uname(2), e.g. \"x86_64\"; 32 characters at most, as the "
               "next two"),
    unexported("os_name", bson::text, "", "distribution; see below"),
    unexported("os_version", bson::text, "", "its version; see below"),
    gauge("tarn_memory_used", bson::int64, "KiB of memory used by the agent", "agent_resident_bytes",
          "resident memory of the reporting process: second number of `/proc/self/statm` × page size; gauge",
          1024),
    gauge("open_files", bson::int64, "open file handles", "open_files",
          "allocated file handles of the whole system: first number of `/proc/sys/fs/file-nr`; gauge"),
    unexported("mem", bson::document, "", "[memory](#mem)"),
    gauge("lavg", bson::float64, "processes on average in the last minute", "load1",
          "load average of one minute: first number of `/proc/loadavg`; keeps its last value while "
          "`/proc/stat` cannot be read"),
    gauge("ncpu", bson::int64, "CPUs", "cpus", "\"cpuN\" lines of `/proc/stat`, counted once at the start"),
    unexported("cpu", bson::document, "", "[CPU](#cpu)"),
    unexported("socket", bson::document, "", "[sockets](#socket)"),
    unexported("mounts", bson::document, "", "[filesystems](#mounts)"),
    unexported("disks", bson::document, "", "[disks](#disks)"),
    unexported("net", bson::document, "", "[network interfaces](#net)"),
    unexported("memcaches", bson::array, "", "[memcached servers](#memcaches)"),
    unexported("beanstalks", bson::array, "", "[beanstalkd servers](#beanstalks)"),
    unexported("custom", bson::array, "", "[scripts](#custom)"),
    unexported("mysqls", bson::array, "", "[MySQL servers](#mysqls)"),
    unexported("redises", bson::array, "", "[Redis servers](#redises)"),
    unexported("mycustoms", bson::array, "", "[all other services](#mycustoms)"),
    unexported("docker", bson::document, "", "[containers](#docker); missing when there is none"),
};

constexpr report_row mem_rows[] = {
    unexported("ok", bson::int64, "", "1: this sample and the one before are good"),
    gauge("free", bson::int64, "kB", "free_bytes", "`MemFree:` of `/proc/meminfo`; gauge", 1024),
    gauge("used", bson::int64, "kB", "used_bytes",
          "`MemTotal:` − `MemFree:` − `Cached:` − `Buffers:`; gauge. Reclaimable slab counts as used", 1024),
    gauge("buffers", bson::int64, "kB", "buffers_bytes", "`Buffers:`; gauge", 1024),
    gauge("cached", bson::int64, "kB", "cached_bytes", "`Cached:`; gauge", 1024),
    gauge("swapfree", bson::int64, "kB", "swap_free_bytes", "`SwapFree:`; gauge", 1024),
    gauge("swapused", bson::int64, "kB", "swap_used_bytes", "`SwapTotal:` − `SwapFree:`; gauge", 1024),
    rate("swapin", "pages per second", "swap_in_pages_per_second", "`pswpin` of `/proc/vmstat`; /s"),
    rate("swapout", "pages per second", "swap_out_pages_per_second", "`pswpout` of `/proc/vmstat`; /s"),
};

constexpr report_row cpu_rows[] = {
    unexported("ok", bson::int64, "", "1: this sample and the one before are good"),
    percentage("guest", "%", "guest_ratio", "ninth number"),
    percentage("idle", "%", "idle_ratio", "fourth"),
    percentage("iowait", "%", "iowait_ratio", "fifth"),
    percentage("irq", "%", "irq_ratio", "sixth"),
    percentage("nice", "%", "nice_ratio", "second"),
    percentage("softirq", "%", "softirq_ratio", "seventh"),
    percentage("steal", "%", "steal_ratio", "eighth"),
    percentage("system", "%", "system_ratio", "third"),
    percentage("user", "%", "user_ratio", "first"),
};

constexpr report_row socket_rows[] = {
    unexported("ok", bson::int64, "", "1: the file was read"),
    gauge("tcp_inuse", bson::int32, "TCP sockets in use", "tcp_in_use",
          "\"TCP:\" line, `inuse`: IPv4 sockets only, listening ones included"),
    gauge("tcp_tw", bson::int32, "TCP sockets in TIME-WAIT", "tcp_time_wait",
          "\"TCP:\" line, `tw`: TIME-WAIT"),
    gauge("tcp_orphan", bson::int32, "TCP sockets without a process", "tcp_orphans",
          "\"TCP:\" line, `orphan`: held by no process any more"),
    gauge("udp_inuse", bson::int32, "UDP sockets in use", "udp_in_use",
          "\"UDP:\" line, `inuse`: IPv4 sockets only"),
};

constexpr report_row mounts_rows[] = {
    unexported("ok", bson::int64, "", "always 1"),
    unexported("name", bson::text, "", "mount point"),
    gauge("free", bson::int64, "MiB", "free_bytes",
          "`f_bavail` × `f_bsize`: available to unprivileged users; gauge", 1048576),
    gauge("total", bson::int64, "MiB", "size_bytes",
          "`f_blocks` × `f_bsize`; gauge. A filesystem whose `f_frsize` differs from `f_bsize` has both "
          "sizes off by that factor",
          1048576),
    gauge("space_perc", bson::float64, "of the space is free", "free_space_ratio",
          "**free** share of the blocks, 0 to 1: `f_bavail` ÷ `f_blocks`; 0 without blocks"),
    gauge("inodes_perc", bson::float64, "of the inodes are free", "free_inodes_ratio",
          "**free** share of the inodes, 0 to 1: `f_ffree` ÷ `f_files`; 0 without inodes"),
};

constexpr report_row disks_rows[] = {
    unexported("ok", bson::int64, "", "always 1; a device without a line in `/proc/diskstats` is left out"),
    unexported("name", bson::text, "", "device"),
    rate("rbytes", "reads per second", "reads_per_second", "reads completed: **operations**, not bytes"),
    rate("wbytes", "writes per second", "writes_per_second", "writes completed: **operations**, not bytes"),
    rate("rticks", "ms per second reading", "read_time_ratio", "time spent reading", 0.001),
    rate("wticks", "ms per second writing", "write_time_ratio", "time spent writing", 0.001),
    rate("tticks", "ms per second in I/O", "io_time_ratio", "time spent doing I/O", 0.001),
    rate("sread", "sectors read per second", "read_bytes_per_second", "sectors read, 512 bytes each", 512),
    rate("swrite", "sectors written per second", "written_bytes_per_second",
         "sectors written, 512 bytes each", 512),
    gauge("avio", bson::float64, "ms per operation", "operation_seconds",
          "`tticks` ÷ (`rbytes` + `wbytes`), of the truncated rates; 0 without operations", 0.001),
    percentage(
        "busy", "% busy", "busy_ratio",
        "`tticks` × I × 100 ÷ elapsed ms, where elapsed is the CPU time of the interval per CPU, from the "
        "nine changes of [cpu](#cpu); 0 while those are not good",
        bson::float64),
};

constexpr report_row net_rows[] = {
    unexported("ok", bson::int64, "", "always 1"),
    unexported("name", bson::text, "", "interface"),
    rate("rbytes", "bit/s received", "received_bytes_per_second",
         "first number, bytes received: truncated /s × 8: **bits**, not bytes", 0.125),
    rate("sbytes", "bit/s sent", "sent_bytes_per_second", "ninth number, bytes sent; likewise", 0.125),
};

constexpr report_row memcaches_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    rate("get", "per minute", "gets_per_minute", "`cmd_get`; /min"),
    rate("set", "per minute", "sets_per_minute", "`cmd_set`; /min"),
    rate("misses", "per minute", "get_misses_per_minute", "`get_misses`; /min"),
    rate("hits", "per minute", "get_hits_per_minute", "`get_hits`; /min"),
    rate("evictions", "per minute", "evictions_per_minute", "`evictions`; /min"),
    gauge("connections", bson::int64, "connections", "connections", "`curr_connections`; gauge"),
    rate("read", "bytes per minute received", "received_bytes_per_minute",
         "`bytes_read`, bytes received by the server; /min"),
    rate("write", "bytes per minute sent", "sent_bytes_per_minute",
         "`bytes_written`, bytes sent by it; /min"),
    gauge("bytes", bson::int64, "bytes", "stored_bytes", "`bytes`, stored now; gauge"),
    gauge("max_bytes", bson::int64, "bytes", "limit_bytes", "`limit_maxbytes`; gauge"),
};

constexpr report_row beanstalks_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    rate("put", "jobs per minute", "puts_per_minute", "`cmd-put`; /min"),
    rate("cdelete", "jobs per minute", "deletes_per_minute", "`cmd-delete`; /min"),
    gauge("uptime", bson::int64, "seconds", "uptime_seconds", "`uptime`; gauge"),
    total("timeout", "jobs", "job_timeouts_total", "`job-timeouts`; total since the server's start"),
    change("connections", "change per minute", "connections_change_per_minute",
           "`current-connections`; change/min"),
};

constexpr report_row custom_rows[] = {
    unexported("report", bson::text, "", "first word of the line"),
    unexported("name", bson::text, "", "second word, the id"),
    gauge("interval", bson::int32, "seconds", "interval_seconds",
          "period of the script in cycles × the agent's `interval`"),
    unexported(
        "alert_when", bson::text, "",
        "text of `alert=`, 49 characters at most; only when it is set. The agent does not evaluate it"),
    gauge("value", bson::float64, "", "value",
          "first line of the output that is not empty, as strtod(3) reads it: 0 for a text that is not a "
          "number; \"inf\" and \"nan\" are numbers. With `incremental`: the increase since the run before, 0 "
          "when it fell. 0 with type 11001"),
    unexported("type", bson::int64, "",
               "`type=` of the line; only when it is not 11. 11001 is the `server_status` script"),
    unexported(
        "alerts", bson::array, "",
        "the further lines of the output (with type 11001 all lines) as strings under \"0\", \"1\", …: ten "
        "at most, of 255 bytes at most, empty lines left out; only when there is one, or with type 11001"),
};

constexpr report_row mysqls_rows[] = {
    rate("insert", "per minute", "inserts_per_minute", "`Com_insert` of `SHOW GLOBAL STATUS`; /min"),
    rate("select", "per minute", "selects_per_minute", "`Com_select`; /min"),
    rate("update", "per minute", "updates_per_minute", "`Com_update`; /min"),
    rate("delete", "per minute", "deletes_per_minute", "`Com_delete`; /min"),
    rate("aborted", "connects per minute", "aborted_connects_per_minute", "`Aborted_connects`; /min"),
    gauge("innodb_pool", bson::int64, "bytes", "innodb_data_bytes",
          "`Innodb_buffer_pool_pages_data` × 16384, whatever the server's page size; gauge"),
    rate("slow", "per minute", "slow_queries_per_minute", "`Slow_queries`; /min"),
    gauge("innodb_free", bson::int64, "bytes", "innodb_free_bytes",
          "`Innodb_buffer_pool_pages_free` × 16384; gauge"),
    rate("innodb_del", "rows per minute", "innodb_rows_deleted_per_minute",
         "`INNODB_ROWS_DELETED` of `information_schema.GLOBAL_STATUS`; /min"),
    rate("innodb_ins", "rows per minute", "innodb_rows_inserted_per_minute", "`INNODB_ROWS_INSERTED`; /min"),
    rate("innodb_read", "rows per minute", "innodb_rows_read_per_minute", "`INNODB_ROWS_READ`; /min"),
    rate("innodb_updated", "rows per minute", "innodb_rows_updated_per_minute",
         "`INNODB_ROWS_UPDATED`; /min"),
    gauge("slave_running", bson::int64, "", "replica_running",
          "1: columns 11 (`Slave_IO_Running`) and 12 (`Slave_SQL_Running`) of `SHOW SLAVE STATUS` both begin "
          "with \"Y\"; only on a replica"),
    gauge("behind_master", bson::int64, "seconds", "replica_lag_seconds",
          "column 33 (`Seconds_Behind_Master`); gauge; only on a replica. While that is NULL (a thread "
          "stopped) the last number stays"),
};

constexpr report_row redises_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    gauge("status", bson::int64, "", "connected", "1: connected; always 1 in a report"),
    gauge("uptime", bson::int64, "seconds", "uptime_seconds", "`uptime_in_seconds`; gauge"),
    gauge("connected_clients", bson::int64, "clients", "clients", "`connected_clients`; gauge"),
    rate32("total_connections_received", "per minute", "connections_per_minute", "same name; /min"),
    rate32("total_commands_processed", "per minute", "commands_per_minute",
           "same name; /min. More than 71 million commands in one interval wrap"),
    rate32("keyspace_hits", "per minute", "keyspace_hits_per_minute", "same name; /min"),
    rate32("keyspace_misses", "per minute", "keyspace_misses_per_minute", "same name; /min"),
    rate32("expired_keys", "per minute", "expired_keys_per_minute", "same name; /min"),
    rate32("evicted_keys", "per minute", "evicted_keys_per_minute", "same name; /min"),
    gauge("connected_slaves", bson::int64, "replicas", "replicas", "`connected_slaves`; gauge"),
    gauge("master_link_status", bson::int64, "", "primary_link_up",
          R"(1: `master_link_status` begins with "up"; only when `role` was seen as "slave")"),
    gauge("master_sync_left_bytes", bson::int64, "bytes", "primary_sync_left_bytes",
          "`master_sync_left_bytes`; gauge, only told during a synchronisation, and kept after it"),
    gauge("rdb_last_bgsave_status", bson::int64, "", "last_save_ok",
          "1: `rdb_last_bgsave_status` begins with \"ok\""),
    gauge("memused", bson::int64, "bytes", "used_memory_bytes",
          "`used_memory` modulo 2^32: above 4 GiB it starts again at 0; gauge"),
    gauge("keys", bson::int64, "keys", "keys",
          "`db0:keys=`: keys of database 0; gauge, and kept when the database empties"),
};

constexpr report_row mycustoms_rows[] = {
    unexported("report", bson::text, "",
               R"(kind: "Postgre", "Sphinx", "Rabbit", "Elastic", "Apache", "Nginx" or "FPM")"),
    unexported("id", bson::text, "", "id of the line"),
};

constexpr report_row postgre_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    rate("cmtd", "per minute", "commits_per_minute", "sum of `xact_commit` over `pg_stat_database`; /min"),
    rate("rolbck", "per minute", "rollbacks_per_minute", "always 0; rollbacks are not counted"),
    total("chk_t", "checkpoints", "timed_checkpoints_total",
          "`checkpoints_timed` of `pg_stat_bgwriter`; total"),
    total("chk_seg", "checkpoints", "requested_checkpoints_total", "`checkpoints_req`; total"),
    gauge("all_con", bson::int64, "sessions", "sessions",
          "rows of `pg_stat_activity`, waiting or not; gauge. Background processes count from version 10 on"),
    change("actv_con", "change per minute", "active_sessions_change_per_minute",
           "sessions with `state` \"active\"; change/min"),
    change("idle_con", "change per minute", "idle_sessions_change_per_minute", "\"idle\"; change/min"),
    change("i_in_tr_con", "change per minute", "idle_in_transaction_change_per_minute",
           "\"idle in transaction\"; change/min"),
    change("lock_con", "change per minute", "waiting_sessions_change_per_minute",
           "sessions that wait; change/min. From version 9.6 on those with a `wait_event_type` of any kind, "
           "idle clients and background processes among them; before, `waiting`"),
    total("buf_chk", "buffers", "checkpoint_buffers_total",
          "`buffers_checkpoint` of `pg_stat_bgwriter`; total"),
    total("buf_clean", "times", "cleaner_stops_total",
          "holds `maxwritten_clean`, not `buffers_clean`; total"),
    unexported("maxw_clean", bson::int64, "", "always 0"),
    total("buf_b", "buffers", "backend_buffers_total", "`buffers_backend`; total"),
    total("buf_b_fsync", "calls", "backend_fsyncs_total", "`buffers_backend_fsync`; total"),
    total("buf_alloc", "buffers", "allocated_buffers_total", "`buffers_alloc`; total"),
    change(
        "slo_all", "change per minute", "slow_statements_change_per_minute",
        "statements of `pg_stat_activity` in state \"active\" since more than `slow_query_sec`; change/min"),
    change("slo_dml", "change per minute", "slow_writes_change_per_minute",
           "of these, those that begin with insert, update or delete; change/min"),
    change("slo_sel", "change per minute", "slow_selects_change_per_minute",
           "of these, those that begin with select; change/min"),
};

constexpr report_row sphinx_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    rate("C", "connections per minute", "connections_per_minute", "`connections`; /min"),
    rate("C_S", "searches per minute", "searches_per_minute", "`command_search`; /min"),
    rate("C_U", "updates per minute", "updates_per_minute", "`command_update`; /min"),
    rate("Q", "queries per minute", "queries_per_minute", "`queries`; /min"),
    gauge("Q_W", bson::float64, "seconds per minute", "query_seconds_per_minute",
          "`query_wall`, seconds; /min, not truncated, negative when the total goes back"),
};

constexpr report_row rabbit_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    gauge("running", bson::int64, "", "running", "`running`: 1, 0, or −1 when it is missing"),
    gauge("processors", bson::int64, "CPUs", "cpus", "`processors`"),
    gauge("fd_used", bson::int64, "descriptors", "open_files", "`fd_used`"),
    gauge("fd_total", bson::int64, "descriptors", "open_files_limit", "`fd_total`"),
    gauge("disk_free", bson::float64, "GB", "disk_free_bytes", "`disk_free`", 1e9),
    gauge("disk_free_limit", bson::float64, "GB", "disk_free_limit_bytes", "`disk_free_limit`", 1e9),
    gauge("disk_left", bson::float64, "GB", "disk_left_bytes",
          "`disk_free` − `disk_free_limit`; 0 below the limit", 1e9),
    gauge("mem_used", bson::float64, "MB", "memory_used_bytes", "`mem_used`", 1e6),
    gauge("mem_limit", bson::float64, "MB", "memory_limit_bytes", "`mem_limit`", 1e6),
    gauge("mem_left", bson::float64, "MB", "memory_left_bytes",
          "`mem_limit` − `mem_used`; 0 at and above the limit", 1e6),
    gauge("mem_used_perc", bson::float64, "%", "memory_used_ratio",
          "`mem_used` ÷ `mem_limit`; **0** at and above the limit", 0.01),
    gauge("proc_used_perc", bson::float64, "%", "processes_used_ratio",
          "`proc_used` ÷ `proc_total`; 0 without a total", 0.01),
    gauge("proc_used", bson::float64, "processes", "processes", "`proc_used`, Erlang processes"),
    gauge("proc_total", bson::float64, "processes", "processes_limit", "`proc_total`, their limit"),
    gauge("queues_sum_len", bson::int64, "messages", "messages",
          "sum of `messages` over the queues that the user may see; modulo 2^32"),
    gauge("queues_count", bson::int64, "queues", "queues", "number of those queues"),
};

constexpr report_row elastic_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    gauge("node_queue_size", bson::int64, "tasks", "queued_tasks",
          "sum of `nodes.NODE.thread_pool.*.queue`; 0 when a pool lacks it"),
    gauge("node_active_size", bson::int64, "threads", "active_threads",
          "sum of `nodes.NODE.thread_pool.*.active`; 0 when a pool lacks it"),
    gauge("threads_search_queue", bson::int64, "tasks", "queued_searches",
          "`nodes.NODE.thread_pool.search.queue`"),
    gauge("threads_search_active", bson::int64, "threads", "active_search_threads",
          "`nodes.NODE.thread_pool.search.active`"),
    gauge("status", bson::int64, "", "cluster_status",
          "`status` of the health: 3 green, 2 yellow, 1 red; any other text keeps the last code, 0 at first"),
    gauge("initializing_shards", bson::int64, "shards", "initializing_shards", "`initializing_shards`"),
    gauge("relocating_shards", bson::int64, "shards", "relocating_shards", "`relocating_shards`"),
    gauge("unassigned_shards", bson::int64, "shards", "unassigned_shards", "`unassigned_shards`"),
};

constexpr report_row apache_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    gauge("bW", bson::int64, "workers", "busy_workers", "`BusyWorkers`; gauge"),
    gauge("iW", bson::int64, "workers", "idle_workers", "`IdleWorkers`; gauge"),
    rate("tA", "requests per second", "requests_per_second",
         "`Total Accesses`; /s, truncated; a total that goes back wraps: about 2^64 ÷ I"),
    gauge("sc_W", bson::int64, "workers", "sending_workers",
          "\"W\" cells of `Scoreboard`: sending a reply; gauge, as the rest"),
    gauge("sc_R", bson::int64, "workers", "reading_workers", "\"R\": reading a request"),
    gauge("sc_K", bson::int64, "workers", "keepalive_workers", "\"K\": keep-alive"),
    gauge("sc_I", bson::int64, "workers", "idle_cleanup_workers", "\"I\": idle cleanup"),
    gauge("sc_D", bson::int64, "workers", "dns_workers", "\"D\": DNS look-up"),
    gauge("sc_F", bson::int64, "workers", "finishing_workers", "\"G\": gracefully finishing"),
    gauge("sc_C", bson::int64, "workers", "closing_workers", "\"C\": closing"),
    gauge("sc_L", bson::int64, "workers", "logging_workers", "\"L\": logging"),
};

constexpr report_row nginx_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    gauge("rps", bson::float64, "requests per second", "requests_per_second",
          "third number below \"server accepts handled requests\"; /s, not truncated; 0 when the total went "
          "back"),
    gauge("active", bson::int64, "connections", "active_connections", "\"Active connections:\"; gauge"),
    gauge("reading", bson::int64, "connections", "reading_connections", "\"Reading:\"; gauge"),
    gauge("writing", bson::int64, "connections", "writing_connections", "\"Writing:\"; gauge"),
    gauge("keepalive", bson::int64, "connections", "waiting_connections", "\"Waiting:\"; gauge"),
};

constexpr report_row fpm_rows[] = {
    unexported("ok", bson::int64, "", "1"),
    gauge("accepted", bson::float64, "connections per second", "connections_per_second",
          "`accepted conn:`; /s, not truncated; 0 when the total went back"),
    gauge("active", bson::int64, "processes", "active_processes",
          "`active processes:`; gauge. The one that answers counts"),
    gauge("idle", bson::int64, "processes", "idle_processes", "`idle processes:`; gauge"),
    gauge("total", bson::int64, "processes", "processes", "`total processes:`; gauge"),
    gauge("lqueue", bson::int64, "connections", "listen_queue_size",
          "`listen queue len:`, the **size** of the listen queue, not how many wait; gauge"),
    total("max_children", "times", "max_children_reached_total",
          "`max children reached:`; total since the pool's start"),
};

constexpr report_row docker_rows[] = {
    gauge("cpu_usage", bson::float64, "% of one CPU", "cpu_usage_ratio",
          "two busy CPUs are 200. From the newest message of `/containers/NAME/stats`: change of "
          "`cpu_stats.cpu_usage.total_usage` ÷ change of `cpu_stats.system_cpu_usage`, both against "
          "`precpu_stats`, × `precpu_stats.online_cpus` × 100; gauge",
          0.01),
    gauge("state", bson::text, "", "running",
          "\"running\" when `State.Running` of `/containers/NAME/json` is true; else the first of these that "
          "is true: `State.Dead` \"dead\", `State.Paused` \"paused\", `State.OOMKilled` \"oomkilled\", "
          "`State.Restarting` \"restarting\"; else \"exited\" when `State.Status` is \"exited\"; else the "
          "state before"),
};

constexpr report_section all_sections[] = {
    {"", "tarn_host", "", top_level_rows},
    {"mem", "tarn_memory", "", mem_rows},
    {"cpu", "tarn_cpu", "", cpu_rows},
    {"socket", "tarn_sockets", "", socket_rows},
    {"mounts", "tarn_filesystem", "mountpoint", mounts_rows},
    {"disks", "tarn_disk", "device", disks_rows},
    {"net", "tarn_network", "interface", net_rows},
    {"memcaches", "tarn_memcached", "server", memcaches_rows},
    {"beanstalks", "tarn_beanstalkd", "server", beanstalks_rows},
    {"custom", "tarn_script", "script", custom_rows},
    {"mysqls", "tarn_mysql", "server", mysqls_rows},
    {"redises", "tarn_redis", "server", redises_rows},
    {"mycustoms", "", "", mycustoms_rows},
    {"Postgre", "tarn_postgresql", "server", postgre_rows},
    {"Sphinx", "tarn_sphinx", "server", sphinx_rows},
    {"Rabbit", "tarn_rabbitmq", "server", rabbit_rows},
    {"Elastic", "tarn_elasticsearch", "server", elastic_rows},
    {"Apache", "tarn_apache", "server", apache_rows},
    {"Nginx", "tarn_nginx", "server", nginx_rows},
    {"FPM", "tarn_php_fpm", "server", fpm_rows},
    {"docker", "tarn_container", "container", docker_rows},
};
}  // namespace

std::span<const report_section> report_sections() {
    return all_sections;
}

const report_section* find_section(std::string_view name) {
    const auto* const found = std::find_if(std::begin(all_sections), std::end(all_sections),
                                           [name](const report_section& one) { return one.name == name; });
    return found != std::end(all_sections) ? found : nullptr;
}

const report_row* find_row(const report_section& section, std::string_view key) {
    const auto found = std::find_if(section.rows.begin(), section.rows.end(),
                                    [key](const report_row& row) { return row.key == key; });
    return found != section.rows.end() ? &*found : nullptr;
}
