#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct tarn_docker;

/// The agent's whole configuration: defaults, then the command line, then the files. Read once, at start;
/// afterwards only the fields marked "run time" change. A text that may fill its field, and so may lack a
/// terminator, is read with tarn::text_of().
struct tarn_config {
    char configFile[1025];                    ///< main configuration file
    char extConfigPattern[257];               ///< glob pattern of the extra files
    std::vector<std::string> extConfigFiles;  ///< extra files read successfully, at most 256

    char name[1024];           ///< agent name; no key sets it
    std::uint32_t id;          ///< numeric server id; 0 when a UUID is used
    key_t shm_key;             ///< System V key of the script results; the next key is the container table's
    char uuid[40];             ///< server UUID text
    char server_name[100];     ///< required with a UUID
    char project_name[100];    ///< required with a UUID
    char project_secret[100];  ///< sent in the report with the UUID

    std::uint32_t interval;     ///< reporting interval, seconds
    int proto;                  ///< IP protocol number of the transport: 17 (UDP) or 6 (TCP)
    int port;                   ///< collector port
    char serverName[1025];      ///< collector domain to resolve; empty when an address is given
    char defaultServerIp[17];   ///< collector IPv4 address from the configuration, dotted text
    char serverIp[17];          ///< run time: collector address found by the last successful look-up
    int dns_servers_count;      ///< name servers given
    char dns_servers[16][256];  ///< name servers for the collector look-up, addresses or names

    int path_exclude_masks_count;
    char path_exclude_masks[256][256];  ///< mount points left out
    int exclude_tmpfs;                  ///< non-zero: leave tmpfs filesystems out
    int interface_exclude_masks_count;
    char interface_exclude_masks[256][256];  ///< network interfaces left out

    unsigned char secret[256];  ///< signing secret; unterminated when 256 bytes long
    int randomsecond;           ///< run time: second of the interval at which a cycle runs

    int custom_counters_delimiter;  ///< default period of a script, in cycles (it delimits nothing)
    int custom_default_uid;         ///< default user id of a script
    int custom_default_gid;         ///< default group id of a script
    int custom_default_timeout;     ///< run-time limit of a script, seconds; no key sets it

    int counter_tcp_to;    ///< time-out of the counters' own connections, seconds
    int server_tcp_to;     ///< time-out of the connection to the collector, seconds
    int mysql_write_to;    ///< seconds
    int mysql_read_to;     ///< seconds
    int mysql_connect_to;  ///< seconds

    char slow_query_sec[32];  ///< slow-query threshold, seconds, as text; unterminated at full length

    int apacheSlashed;  ///< non-zero: Apache's status page is requested with a "/" before "?auto"

    char mysql_lib[512];    ///< file name of the MySQL client library; unterminated at full length
    int mysql_on;           ///< non-zero: a counter needs this library
    void* mysql_handle;     ///< run time: the loaded library; null when it is not loaded
    char postgre_lib[512];  ///< file name of libpq, as mysql_lib
    int postgre_on;         ///< non-zero: a counter needs this library
    void* postgre_handle;   ///< run time: the loaded library; null when it is not loaded

    int debug;           ///< non-zero: print the detailed trace
    int showconfigonly;  ///< non-zero: print the configuration and exit

    tarn_docker* docker;           ///< run time: the container table; null when there is none
    std::string docker_sock_path;  ///< path of the container engine's socket; empty when not configured
};

/// The agent's only configuration record.
extern tarn_config config;

/// Clears the record and writes the defaults. Returns 0.
int init_config();
