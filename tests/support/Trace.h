#ifndef METRICS_TESTS_SUPPORT_TRACE_H
#define METRICS_TESTS_SUPPORT_TRACE_H

#include "Process.h"

#include <metrics/MetricsEvent.h>

#include <babeltrace2/babeltrace.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

/// Traces, as babeltrace2 reads them.
namespace Metrics::test {

struct TraceEvent {
    MetricsEvent event;
    std::int64_t tid = 0;
    std::uint64_t clock = 0; ///< what the reader orders by
    std::int64_t wall = 0;   ///< the same in nanoseconds since 1970, by the clock's offset
};

struct Trace {
    std::vector<TraceEvent> events;
    std::uint64_t discarded = 0;
    std::map<std::string, std::string> environment; ///< what it says of its process
};

namespace trace {

inline void Check(bool condition, const char* what) {
    if (!condition)
        throw std::runtime_error(std::string("babeltrace2: ") + what);
}

inline const bt_field* Member(const bt_field* structure, const char* name) {
    const bt_field* const field =
        bt_field_structure_borrow_member_field_by_name_const(structure, name);
    Check(field != nullptr, name);
    return field;
}

inline std::uint64_t Unsigned(const bt_field* field) {
    return bt_field_integer_unsigned_get_value(field);
}
inline std::int64_t Signed(const bt_field* field) {
    return bt_field_integer_signed_get_value(field);
}

inline MetricsValue Value(const bt_field* field) {
    switch (bt_field_get_class_type(field)) {
    case BT_FIELD_CLASS_TYPE_SIGNED_INTEGER:
        return Signed(field);
    case BT_FIELD_CLASS_TYPE_UNSIGNED_ENUMERATION:
        return Unsigned(field) != 0;
    case BT_FIELD_CLASS_TYPE_DOUBLE_PRECISION_REAL:
        return bt_field_real_double_precision_get_value(field);
    case BT_FIELD_CLASS_TYPE_STRING:
        return std::string(bt_field_string_get_value(field), bt_field_string_get_length(field));
    case BT_FIELD_CLASS_TYPE_STRUCTURE: {
        const bt_field* const bytes = Member(field, "bytes");
        std::string text;
        for (std::uint64_t i = 0; i < bt_field_array_get_length(bytes); ++i)
            text += static_cast<char>(
                Unsigned(bt_field_array_borrow_element_field_by_index_const(bytes, i)));
        MetricsValue value(text);
        value.kind = static_cast<MetricsValue::Kind>(Signed(Member(field, "kind")));
        return value;
    }
    default:
        throw std::runtime_error("a field of an unexpected class");
    }
}

inline TraceEvent Event(const bt_message* message) {
    static const std::map<std::string, int> types = {
        {"context_created", 2}, {"context_opened", 3}, {"context_closed", 4}, {"scope_opened", 5},
        {"scope_closed", 6},    {"custom", 7},         {"attribute", 8}};
    const bt_event* const event = bt_message_event_borrow_event_const(message);
    const bt_field* const payload = bt_event_borrow_payload_field_const(event);
    const bt_field* const context = bt_event_borrow_common_context_field_const(event);
    const bt_field* const packet =
        bt_packet_borrow_context_field_const(bt_event_borrow_packet_const(event));
    TraceEvent result;
    MetricsEvent& e = result.event;
    const std::string name = bt_event_class_get_name(bt_event_borrow_class_const(event));
    const auto type = name == "unknown" ? Signed(Member(payload, "type")) : types.at(name);
    e.eventType = static_cast<MetricsEventType>(type);
    const bt_clock_snapshot* const clock =
        bt_message_event_borrow_default_clock_snapshot_const(message);
    result.clock = bt_clock_snapshot_get_value(clock);
    Check(bt_clock_snapshot_get_ns_from_origin(clock, &result.wall) ==
              BT_CLOCK_SNAPSHOT_GET_NS_FROM_ORIGIN_STATUS_OK,
          "no wall time");
    e.timestamp =
        result.clock - Unsigned(Member(packet, "lag_base")) - Unsigned(Member(context, "lag"));
    const auto wall =
        e.timestamp / 1000 + static_cast<std::uint64_t>(Signed(Member(packet, "wall_base")) +
                                                        Signed(Member(context, "wall")));
    e.unixSeconds = wall / 1'000'000;
    e.unixMicroseconds = static_cast<std::uint32_t>(wall % 1'000'000);
    result.tid = Signed(Member(payload, "tid"));
    e.contextId = Unsigned(Member(payload, "context_id"));
    e.sourceId = Unsigned(Member(payload, "source_id"));
    e.bits = Unsigned(Member(payload, "bits"));
    e.param1 = Value(Member(payload, "param1"));
    e.param2 = Value(Member(payload, "param2"));
    return result;
}

inline std::map<std::string, std::string> Environment(const bt_trace* trace) {
    std::map<std::string, std::string> environment;
    for (std::uint64_t i = 0; i < bt_trace_get_environment_entry_count(trace); ++i) {
        const char* name = nullptr;
        const bt_value* value = nullptr;
        bt_trace_borrow_environment_entry_by_index_const(trace, i, &name, &value);
        environment[name] = bt_value_is_string(value)
                                ? bt_value_string_get(value)
                                : std::to_string(bt_value_integer_signed_get(value));
    }
    return environment;
}

struct Sink {
    Trace trace;
    std::string error;
};

inline auto Ready(bt_message_iterator*, void*) {
    return BT_GRAPH_SIMPLE_SINK_COMPONENT_INITIALIZE_FUNC_STATUS_OK;
}

inline bt_graph_simple_sink_component_consume_func_status Consume(bt_message_iterator* iterator,
                                                                  void* data) {
    Sink& sink = *static_cast<Sink*>(data);
    bt_message_array_const messages = nullptr;
    std::uint64_t count = 0;
    const auto status = bt_message_iterator_next(iterator, &messages, &count);
    if (status == BT_MESSAGE_ITERATOR_NEXT_STATUS_END)
        return BT_GRAPH_SIMPLE_SINK_COMPONENT_CONSUME_FUNC_STATUS_END;
    if (status != BT_MESSAGE_ITERATOR_NEXT_STATUS_OK)
        return BT_GRAPH_SIMPLE_SINK_COMPONENT_CONSUME_FUNC_STATUS_ERROR;
    for (std::uint64_t i = 0; i < count; ++i) {
        const bt_message* const message = messages[i];
        try {
            std::uint64_t discarded = 0;
            const bt_message_type type = bt_message_get_type(message);
            if (type == BT_MESSAGE_TYPE_STREAM_BEGINNING)
                sink.trace.environment = Environment(bt_stream_borrow_trace_const(
                    bt_message_stream_beginning_borrow_stream_const(message)));
            else if (type == BT_MESSAGE_TYPE_EVENT)
                sink.trace.events.push_back(Event(message));
            else if (type == BT_MESSAGE_TYPE_DISCARDED_EVENTS &&
                     bt_message_discarded_events_get_count(message, &discarded) ==
                         BT_PROPERTY_AVAILABILITY_AVAILABLE)
                sink.trace.discarded += discarded;
            else
                Check(type != BT_MESSAGE_TYPE_DISCARDED_PACKETS, "packets are missing");
        } catch (const std::exception& error) {
            sink.error = error.what();
        }
        bt_message_put_ref(message);
    }
    return sink.error.empty() ? BT_GRAPH_SIMPLE_SINK_COMPONENT_CONSUME_FUNC_STATUS_OK
                              : BT_GRAPH_SIMPLE_SINK_COMPONENT_CONSUME_FUNC_STATUS_ERROR;
}

} // namespace trace

/// All of a trace, to its end. @throws std::runtime_error when babeltrace2 finds anything wrong.
inline Trace ReadTrace(const std::string& folder) {
    using namespace trace;
    const bt_plugin* plugin = nullptr;
    Check(bt_plugin_find("ctf", BT_FALSE, BT_FALSE, BT_TRUE, BT_FALSE, BT_TRUE, &plugin) ==
              BT_PLUGIN_FIND_STATUS_OK,
          "no plug-in for the format");
    bt_value* const parameters = bt_value_map_create();
    bt_value* inputs = nullptr;
    bt_value_map_insert_empty_array_entry(parameters, "inputs", &inputs);
    bt_value_array_append_string_element(inputs, folder.c_str());

    Sink sink;
    bt_graph* const graph = bt_graph_create(0);
    const bt_component_source* source = nullptr;
    const bool isSource =
        bt_graph_add_source_component(
            graph, bt_plugin_borrow_source_component_class_by_name_const(plugin, "fs"), "trace",
            parameters, BT_LOGGING_LEVEL_WARNING, &source) == BT_GRAPH_ADD_COMPONENT_STATUS_OK;
    bool isRead = isSource;
    // A trace without an event has no stream. All streams of one are one to the reader.
    const std::uint64_t ports = isSource ? bt_component_source_get_output_port_count(source) : 0;
    if (ports == 1) {
        const bt_component_sink* end = nullptr;
        bt_graph_add_simple_sink_component(graph, "events", Ready, Consume, nullptr, &sink, &end);
        bt_graph_connect_ports(graph,
                               bt_component_source_borrow_output_port_by_index_const(source, 0),
                               bt_component_sink_borrow_input_port_by_index_const(end, 0), nullptr);
        isRead = bt_graph_run(graph) == BT_GRAPH_RUN_STATUS_OK;
    }
    bt_graph_put_ref(graph);
    bt_value_put_ref(parameters);
    bt_plugin_put_ref(plugin);
    Check(isRead && ports < 2, sink.error.empty() ? "cannot read it" : sink.error.c_str());
    return std::move(sink.trace);
}

/// What the command says to it on its standard error, which is nothing when all is well.
inline std::string Complaints(const std::string& folder) {
    const std::string command = "babeltrace2 '" + folder + "' --output-format=dummy 2>&1";
    std::FILE* const output = popen(command.c_str(), "r");
    std::string text;
    for (int c = 0; (c = std::fgetc(output)) != EOF;)
        text += static_cast<char>(c);
    return text + (pclose(output) == 0 ? "" : "failed");
}

} // namespace Metrics::test

#endif // METRICS_TESTS_SUPPORT_TRACE_H
