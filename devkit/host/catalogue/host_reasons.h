// Why `corvane-host serve` refuses: everything that it says by itself about a request.
#ifndef CORVANE_HOST_CATALOGUE_HOST_REASONS_H
#define CORVANE_HOST_CATALOGUE_HOST_REASONS_H

// The code that is answered, the reason's own name, by which programs know it, and the text,
// with {name} for a value. None of them is what a parameter holds.
// clang-format off
#define HOST_REASONS(X) \
    X(malformed,           header_twice,          "{header} is given twice") \
    X(malformed,           bad_head,              "the head has control characters, folded lines or lines that do not end in CR LF") \
    X(malformed,           bad_header,            "a header is not of its form") \
    X(malformed,           length_and_chunks,     "Content-Length and Transfer-Encoding exclude each other") \
    X(malformed,           old_and_chunked,       "HTTP/1.0 has no Transfer-Encoding") \
    X(malformed,           not_chunked,           "the body can only be chunked") \
    X(malformed,           bad_length,            "Content-Length is not a number") \
    X(malformed,           quote_inside,          "a parameter of a header has a quote in its midst") \
    X(malformed,           quote_open,            "a parameter of a header has a quote without its other one") \
    X(malformed,           text_behind_quotes,    "a parameter of a header has more behind its quotes") \
    X(malformed,           header_value_twice,    "a parameter of a header is given twice") \
    X(malformed,           query,                 "parameters belong into the body, not behind a \"?\"") \
    X(malformed,           body_not_due,          "this path takes no body") \
    X(malformed,           zero_byte,             "the body has a byte of value 0") \
    X(malformed,           not_json,              "the body is not JSON; reading stopped at byte {position}") \
    X(malformed,           too_deep,              "the body is nested more deeply than it can be") \
    X(malformed,           bad_name,              "a name is not 1 to 128 printable characters") \
    X(malformed,           empty_batch,           "a batch has at least one request") \
    X(malformed,           more_in_batch,         "a request has a name and parameters, nothing else") \
    X(malformed,           bad_node_header,       "X-Corvane-Node is not a node's name") \
    X(malformed,           bad_session_header,    "X-Corvane-Session is not a session's token") \
    X(malformed,           header_contradicts,    "{header} names another one than {name}") \
    X(malformed,           missing_for_peer,      "{name} is missing") \
    X(malformed,           bad_boundary,          "the boundary of the form is not 1 to 70 of the characters for it") \
    X(malformed,           no_boundary,           "the form is not whole: its boundary is not there") \
    X(malformed,           no_last_boundary,      "the form is not whole: its last boundary is not there") \
    X(malformed,           more_at_boundary,      "the form is not whole: a boundary's line has more than the boundary") \
    X(malformed,           part_without_field,    "the form is not whole: a part does not say which field it is") \
    X(malformed,           part_headers_open,     "the form is not whole: a part's headers do not end") \
    X(malformed,           part_headers_large,    "the form is not whole: a part's headers have more than {most} bytes") \
    X(malformed,           part_headers_many,     "the form is not whole: a part has more than {most} headers") \
    X(malformed,           part_header_twice,     "the form is not whole: a part has two headers {header}") \
    X(malformed,           bad_part_header,       "the form is not whole: a part's header is not of its form") \
    X(wrong_type,          not_parameters,        "the parameters are not a JSON object") \
    X(wrong_type,          not_a_value,           "a value is a string, an integer of at most 64 bits, or an object with text, base64, hex or raw") \
    X(wrong_type,          not_a_value_object,    "an object as a value has one member, text, base64, hex or raw, and that is a string") \
    X(wrong_type,          number_too_large,      "a number is too large") \
    X(wrong_type,          not_a_batch,           "a batch is an object with one member, requests, and that is an array") \
    X(wrong_type,          no_request_name,       "a request has a name, a string") \
    X(wrong_type,          bytes_for_text,        "{name} takes a string, not bytes") \
    X(wrong_type,          name_for_number,       "{name} is no number and no name that is known here; did you mean {nearest}?") \
    X(wrong_type,          text_for_number,       "{name} takes a whole number, {allowed}") \
    X(wrong_type,          not_for_peer,          "the peer takes texts of Base64") \
    X(bad_encoding,        not_utf8,              "the body is not UTF-8") \
    X(bad_encoding,        bad_base64,            "the value is not Base64") \
    X(bad_encoding,        bad_hex,               "the value is not pairs of hex digits") \
    X(bad_encoding,        text_for_base64,       "{name} is not Base64 (URL-safe): send {\"text\"}, {\"hex\"} or {\"base64\"}, or {\"raw\"} to send it as it is") \
    X(bad_encoding,        form_for_base64,       "{name} is not Base64 (URL-safe): encode it, send it as a file of a multipart form, or send JSON with {\"text\"}, {\"hex\"} or {\"raw\"}") \
    X(bad_encoding,        bad_escape_in_name,    "a name has a percent sign that escapes nothing") \
    X(bad_encoding,        bad_escape,            "the value has a percent sign that escapes nothing") \
    X(duplicate_parameter, name_twice,            "{name} is given twice") \
    X(too_many_parameters, too_many_fields,       "there are more than {most} parameters") \
    X(too_many_parameters, too_many_members,      "an object has more than {most} members") \
    X(too_many_parameters, too_many_items,        "an array has more than {most} items") \
    X(bad_path,            no_folder,             "the host was started without --ca-folder; files can only be uploaded") \
    X(bad_path,            outside_folder,        "a file is named from the host's folder, without \"..\"") \
    X(bad_path,            no_such_file,          "there is no such file below the host's folder") \
    X(bad_path,            no_such_folder,        "there is no such folder below the host's folder") \
    X(unauthorized,        no_token,              "there is no token") \
    X(unauthorized,        wrong_token,           "the token is wrong") \
    X(forbidden_host,      unknown_host,          "the host is not known by the name in Host") \
    X(forbidden_origin,    other_origin,          "pages of this origin may not use the host") \
    X(forbidden_origin,    other_site,            "pages of other origins may not use the host") \
    X(not_found,           no_such_path,          "there is nothing at this path") \
    X(not_found,           no_such_step,          "the peer has no such step") \
    X(not_found,           no_peer,               "there is no peer at this host") \
    X(unknown_request,     no_such_request,       "there is no request of this name") \
    X(unknown_request,     misspelt_request,      "there is no request of this name; did you mean {nearest}?") \
    X(method_not_allowed,  other_method,          "this path takes {method}") \
    X(timeout,             not_whole_in_time,     "the request did not arrive whole in time") \
    X(session_gone,        session_unknown,       "there is no such session: it is not known here") \
    X(session_gone,        session_freed,         "there is no such session: it was freed") \
    X(session_gone,        session_idle,          "there is no such session: it was idle for too long") \
    X(session_gone,        session_worker_ended,  "there is no such session: its worker process ended") \
    X(session_gone,        session_worker_forgot, "there is no such session: its worker does not know it") \
    X(wrong_node,          wrong_node,            "the request is for the node {node}, not for this one") \
    X(too_large,           body_too_large,        "the body has more than {most} bytes") \
    X(parameter_too_large, value_too_large,       "{name} has more than {most} bytes") \
    X(unsupported_type,    unknown_body,          "the body's type is not read here") \
    X(unsupported_type,    json_as_form,          "the body looks like JSON and came as a form: send Content-Type: application/json") \
    X(unsupported_type,    json_charset,          "JSON is read as UTF-8 only") \
    X(unsupported_type,    batch_not_json,        "a batch is JSON") \
    X(unsupported_type,    body_encoded,          "the body is encoded once more") \
    X(unsupported_type,    part_encoded,          "a part of the form is encoded once more") \
    X(unsupported_type,    part_of_parts,         "a part of the form is a form of parts") \
    X(unsupported_type,    part_charset,          "a text of the form is not in UTF-8") \
    X(too_many_requests,   too_fast,              "this address sends too many requests") \
    X(too_many_requests,   too_many_connections,  "this address has too many connections") \
    X(headers_too_large,   too_many_headers,      "there are more than {headers} headers, or more than {bytes} bytes") \
    X(worker_failed,       worker_ended,          "the process that served the request ended in it") \
    X(worker_failed,       not_carried_out,       "the request could not be carried out: {why}") \
    X(worker_failed,       no_memory,             "there was no memory for the answer") \
    X(busy,                queue_full,            "too many requests wait for a worker") \
    X(busy,                no_worker,             "no process was free for the request in time") \
    X(busy,                sessions_full,         "there are as many sessions as the host takes") \
    X(busy,                bodies_full,           "the bodies of other requests take all memory there is for them") \
    X(draining,            host_stops,            "the host is about to stop") \
    X(draining,            host_stopped,          "the host stopped before the request began") \
    X(worker_timeout,      too_slow,              "the request took too long and was ended")
// clang-format on

// By their names as clients get them.
enum class Reason {
#define NAME(code, name, text) name,
    HOST_REASONS(NAME)
#undef NAME
};

#endif
