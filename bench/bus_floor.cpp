// bus_floor: the two floors under the service, each a bare ZeroMQ REP loop, and its storing alone.
//
//   bus_floor raw ADDRESS FILE
//       answers every request with the bytes of FILE, without looking
//   bus_floor xml ADDRESS
//       what libxml2 and a hash table cost: parses the request, finds the values, builds the reply
//       as a document and dumps it. Knows GET_ACTION, GET_ALL_ACTION and the SETs (into memory
//       only); its values are the rows of the live database
//   bus_floor store ADDRESS NAME
//       stores a value under NAME (bare_store.h) for each request
//   bus_floor store-alone NAME COUNT
//       stores COUNT values under NAME, without a bus, and ends
//
// The loops serve until they are killed.

#include "bare_store.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sqlite3.h>
#include <zmq.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

using Values = std::unordered_map<std::string, std::string>;

[[noreturn]] void giveUp(const char* what) {
    std::fprintf(stderr, "bus_floor: %s\n", what);
    std::exit(1);
}

const xmlChar* asXml(const char* text) {
    return reinterpret_cast<const xmlChar*>(text);
}

struct Store {
    Values values;
    std::vector<const Values::value_type*> sorted; // by name
};

int addRow(void* store, int /*columns*/, char** row, char** /*names*/) {
    static_cast<Store*>(store)->values[row[0]] = row[1] == nullptr ? "" : row[1];
    return 0;
}

Store loadStore() {
    Store store;
    sqlite3* database = nullptr;
    if (sqlite3_open(bench::kLiveDatabase, &database) != SQLITE_OK ||
        sqlite3_exec(database, "SELECT NAME,VALUE FROM CONFIG", addRow, &store, nullptr) !=
            SQLITE_OK) {
        giveUp("cannot read the live database");
    }
    sqlite3_close(database);
    for (const auto& value : store.values) {
        store.sorted.push_back(&value);
    }
    std::sort(store.sorted.begin(), store.sorted.end(),
              [](const auto* a, const auto* b) { return a->first < b->first; });
    return store;
}

// ---- The xml floor ------------------------------------------------------------------------------

void addParameter(xmlNode* root, const char* name, const char* value) {
    xmlNode* element = xmlNewNode(nullptr, asXml("parameter"));
    xmlNode* text = xmlNewText(asXml(value));
    xmlAddChild(root, element);
    xmlAddChild(element, text);
    xmlNewProp(element, asXml("name"), asXml(name));
}

const char* replyRootFor(std::string_view root) {
    if (root == "GET_ACTION") {
        return "GET_RESPONSE_ACTION";
    }
    return root == "GET_ALL_ACTION" ? "GET_RESPONSE_ALL_ACTION" : "SET_RESPONSE_ACTION";
}

void answerChild(const xmlNode* child, bool get, Store& store, xmlNode* reply) {
    xmlChar* name = xmlGetProp(child, asXml("name"));
    const auto found = store.values.find(reinterpret_cast<const char*>(name));
    if (found == store.values.end()) {
        giveUp("asked for an unknown name");
    }
    if (get) {
        addParameter(reply, found->first.c_str(), found->second.c_str());
    } else {
        xmlChar* value = xmlNodeGetContent(child);
        found->second = reinterpret_cast<const char*>(value);
        xmlFree(value);
    }
    xmlFree(name);
}

// The reply's bytes, to be freed with xmlFree.
xmlChar* answer(zmq_msg_t& request, Store& store, int& length) {
    xmlDoc* document =
        xmlReadMemory(static_cast<const char*>(zmq_msg_data(&request)),
                      static_cast<int>(zmq_msg_size(&request)), "noname.xml", nullptr, 0);
    const xmlNode* root = xmlDocGetRootElement(document);
    const std::string_view kind = reinterpret_cast<const char*>(root->name);
    xmlDoc* reply = xmlNewDoc(asXml("1.0"));
    xmlNode* top = xmlNewNode(nullptr, asXml(replyRootFor(kind)));
    xmlDocSetRootElement(reply, top);
    for (const xmlNode* child = root->children; child != nullptr; child = child->next) {
        answerChild(child, kind == "GET_ACTION", store, top);
    }
    if (kind == "GET_ALL_ACTION") {
        for (const auto* value : store.sorted) {
            addParameter(top, value->first.c_str(), value->second.c_str());
        }
    }
    xmlChar* bytes = nullptr;
    xmlDocDumpMemory(reply, &bytes, &length);
    xmlFreeDoc(reply);
    xmlFreeDoc(document);
    return bytes;
}

// ---- The loop -----------------------------------------------------------------------------------

void send(void* socket, const void* bytes, std::size_t length) {
    zmq_msg_t message;
    zmq_msg_init_size(&message, length);
    std::memcpy(zmq_msg_data(&message), bytes, length);
    zmq_msg_send(&message, socket, ZMQ_DONTWAIT);
    zmq_msg_close(&message);
}

template <typename Answer>
[[noreturn]] void serve(const char* address, Answer answer_one) {
    void* socket = zmq_socket(zmq_ctx_new(), ZMQ_REP);
    if (zmq_bind(socket, address) != 0) {
        giveUp("cannot bind");
    }
    for (;;) {
        zmq_msg_t request;
        zmq_msg_init(&request);
        if (zmq_msg_recv(&request, socket, 0) < 0) {
            giveUp("cannot receive");
        }
        answer_one(socket, request);
        zmq_msg_close(&request);
    }
}

[[noreturn]] void serveRaw(const char* address, const char* file) {
    std::ostringstream content;
    content << std::ifstream(file).rdbuf();
    const std::string reply = content.str();
    serve(address,
          [&](void* socket, zmq_msg_t& /*request*/) { send(socket, reply.data(), reply.size()); });
}

[[noreturn]] void serveXml(const char* address) {
    Store store = loadStore();
    serve(address, [&](void* socket, zmq_msg_t& request) {
        int length = 0;
        xmlChar* bytes = answer(request, store, length);
        send(socket, bytes, static_cast<std::size_t>(length));
        xmlFree(bytes);
    });
}

[[noreturn]] void serveStore(const char* address, const char* name) {
    serve(address, [name, turn = 0U](void* socket, zmq_msg_t& /*request*/) mutable {
        while (!bench::bareSet(name, turn++ % 2 == 0 ? "a" : "b", false)) { // locked by the backup
        }
        send(socket, "stored", 6);
    });
}

int storeAlone(const char* name, long count) {
    for (long i = 0; i < count; ++i) {
        if (!bench::bareSet(name, i % 2 == 0 ? "a" : "b", false)) {
            giveUp("cannot store");
        }
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    if (mode == "raw" && argc == 4) {
        serveRaw(argv[2], argv[3]);
    }
    if (mode == "xml" && argc == 3) {
        serveXml(argv[2]);
    }
    if (mode == "store" && argc == 4) {
        serveStore(argv[2], argv[3]);
    }
    if (mode == "store-alone" && argc == 4) {
        return storeAlone(argv[2], std::strtol(argv[3], nullptr, 10));
    }
    std::fputs("usage: bus_floor raw ADDRESS FILE | xml ADDRESS | store ADDRESS NAME | store-alone "
               "NAME COUNT\n",
               stderr);
    return 2;
}
