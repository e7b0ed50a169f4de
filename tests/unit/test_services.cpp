// The services' configuration texts, and the bytes of a reply.
#include <sys/socket.h>

#include "services/tarn_elastic.h"
#include "services/tarn_redis.h"
#include "services/tarn_service.h"
#include "test_helpers.h"

TEST(Services, AddressesAreReadWithAndWithoutPassword) {
    expect_table("redis_lines.txt", [](const std::string& text) {
        counter_of<tarn_mycustom_data_redis> redis(text + "\n", redis_operations);
        const auto& data = redis.data();
        return fields(redis.counter.id, data.user, data.pass, data.host, data.port, data.in_docker,
                      data.docker_container_name);
    });
    expect_table("elastic_lines.txt", [](const std::string& text) {
        counter_of<tarn_mycustom_data_elastic> elastic(text, elastic_operations);
        const auto& data = elastic.data();
        return fields(elastic.counter.id, data.host, data.port, data.node_name, data.in_docker);
    });
}

TEST(Services, RepliesEndAtTheirLastByteOrAZeroByte) {
    const auto reply_to = [](const std::string& sent) {
        int ends[2];
        ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
        const tarn::stream connection{tarn::unique_fd(ends[0])};
        const tarn::unique_fd peer(ends[1]);
        ::send(peer.get(), sent.data(), sent.size(), 0);
        char buffer[4];
        return std::string(tarn::read_reply(connection, buffer).value_or("none"));
    };
    EXPECT_EQ(fields(reply_to("ab"), reply_to("abcd"), reply_to({"a\0b", 3}), reply_to("abcdef")),
              "ab|abcd|a|abcd");
}
