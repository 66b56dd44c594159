// The parameters, and what librdkafka is told.
#include "settings.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "properties.h"

namespace {

using kafka::conf_pointer;
using kafka::message_format;
using kafka::message_key;
using kafka::settings;

// Gone with the object.
class text_file {
  public:
    explicit text_file(const std::string& content) : file_(memfd_create("text", MFD_CLOEXEC)) {
        EXPECT_EQ(write(file_, content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
    }
    ~text_file() { (void)close(file_); }
    text_file(const text_file&) = delete;
    text_file& operator=(const text_file&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(file_); }

  private:
    int file_;
};

// What is wrong with the parameters; empty: nothing.
std::string fault_of(std::string params, settings& result) {
    std::string fault;
    return kafka::read_settings(params.data(), result, fault) ? "" : fault;
}

std::string fault_of(const std::string& params) {
    settings result;
    return fault_of(params, result);
}

std::string property(const conf_pointer& conf, const char* name) {
    char value[256];
    size_t size = sizeof value;
    return rd_kafka_conf_get(conf.get(), name, value, &size) == RD_KAFKA_CONF_OK ? value : "?";
}

std::string configuration_fault(const settings& wanted) {
    std::string fault;
    EXPECT_EQ(kafka::make_configuration(wanted, fault), nullptr);
    return fault;
}

TEST(Settings, HaveDefaults) {
    settings result;
    EXPECT_EQ(fault_of("", result), "");
    EXPECT_EQ(result.topic, "flows");
    EXPECT_EQ(result.format, message_format::json);
    EXPECT_EQ(result.key, message_key::none);
    EXPECT_EQ(result.queue_bytes, 16U << 20);
    EXPECT_EQ(result.drain_s, 10U);
}

TEST(Settings, AreRead) {
    settings result;
    EXPECT_EQ(fault_of("brokers=a:9092#[::1]:9093,topic=t,format=protobuf,key=flow,config=/f,"
                       "sampler=192.0.2.7,queue=256,drain=0",
                       result),
              "");
    EXPECT_EQ(result.brokers, "a:9092,[::1]:9093");
    EXPECT_EQ(result.topic, "t");
    EXPECT_EQ(result.format, message_format::protobuf);
    EXPECT_EQ(result.key, message_key::flow);
    EXPECT_EQ(result.properties_file, "/f");
    EXPECT_EQ(result.sampler.text, "192.0.2.7");
    EXPECT_EQ(result.queue_bytes, 262144U);
    EXPECT_EQ(result.drain_s, 0U);
}

TEST(Settings, ThatMakeNoSenseAreNamed) {
    EXPECT_EQ(fault_of("queue=16"), "queue is from 256 to 4194304 KiB");
    EXPECT_EQ(fault_of("drain=3601"), "drain is from 0 to 3600 s");
    EXPECT_EQ(fault_of("key=flows"), "Unknown key: flows (there are none, exporter, flow)");
    EXPECT_EQ(fault_of("format=xml"), "Unknown format: xml (there are json, protobuf)");
    EXPECT_EQ(fault_of("format=protobuf,style=ecs"), "style, fields and seed go with format=json");
    EXPECT_EQ(fault_of("format=protobuf,seed=0"), "style, fields and seed go with format=json");
    EXPECT_EQ(fault_of("style=xml"), "style=xml is none of goflow2 and ecs");
    EXPECT_EQ(fault_of("sampler=here"), "sampler=here is no IPv4 or IPv6 address");
    EXPECT_EQ(fault_of("topic"), "these parameters cannot be read");
}

TEST(Properties, SuitAProbe) {
    settings wanted;
    wanted.brokers = "a:9092,b:9092";
    std::string fault;
    const conf_pointer conf = kafka::make_configuration(wanted, fault);
    ASSERT_NE(conf, nullptr) << fault;
    EXPECT_EQ(property(conf, "bootstrap.servers"), "a:9092,b:9092");
    EXPECT_EQ(property(conf, "enable.idempotence"), "true");
    EXPECT_EQ(property(conf, "linger.ms"), "100");
}

TEST(Properties, OfTheFileComeAfterThoseAndBeforeTheParameters) {
    const text_file file(
        "# comment\n\nlinger.ms = 7 \r\nsasl.password=a#b=c\nbootstrap.servers=x:1\n");
    settings wanted;
    wanted.properties_file = file.path();
    std::string fault;
    conf_pointer conf = kafka::make_configuration(wanted, fault);
    ASSERT_NE(conf, nullptr) << fault;
    EXPECT_EQ(property(conf, "linger.ms"), "7");
    EXPECT_EQ(property(conf, "sasl.password"), "a#b=c");
    EXPECT_EQ(property(conf, "bootstrap.servers"), "x:1");
    wanted.brokers = "y:2";
    conf = kafka::make_configuration(wanted, fault);
    ASSERT_NE(conf, nullptr) << fault;
    EXPECT_EQ(property(conf, "bootstrap.servers"), "y:2");
}

TEST(Properties, ThatAreWrongAreSaidWithTheirLine) {
    settings wanted;
    EXPECT_EQ(configuration_fault(wanted), "brokers=HOST:PORT is missing");
    const text_file unknown("linger.ms=1\nno.such=1\n");
    wanted.properties_file = unknown.path();
    EXPECT_EQ(configuration_fault(wanted),
              wanted.properties_file + ":2: No such configuration property: \"no.such\"");
    const text_file bare("linger.ms\n");
    wanted.properties_file = bare.path();
    EXPECT_EQ(configuration_fault(wanted), wanted.properties_file + ":1: name=value is expected");
    const text_file silent("delivery.report.only.error=true\n");
    wanted.properties_file = silent.path();
    EXPECT_EQ(configuration_fault(wanted),
              wanted.properties_file +
                  ":1: delivery.report.only.error cannot be set here: each "
                  "message is counted when its report comes");
    const text_file transactional("transactional.id=t\n");
    wanted.properties_file = transactional.path();
    EXPECT_EQ(configuration_fault(wanted),
              wanted.properties_file +
                  ":1: transactional.id cannot be set here: the export makes no transactions");
    wanted.properties_file = "/nonexistent/file";
    EXPECT_EQ(configuration_fault(wanted), "/nonexistent/file: No such file or directory");
    wanted.properties_file = "/";
    EXPECT_EQ(configuration_fault(wanted), "/: Is a directory");
}

}  // namespace
