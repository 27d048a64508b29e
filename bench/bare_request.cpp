// bare_request ADDRESS REQUEST: one ZeroMQ request and nothing else; prints the reply. The
// yardstick of a command-line client.
#include <zmq.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: bare_request ADDRESS REQUEST\n", stderr);
        return 2;
    }
    void* context = zmq_ctx_new();
    void* socket = zmq_socket(context, ZMQ_REQ);
    zmq_msg_t reply;
    zmq_msg_init(&reply);
    const bool answered = zmq_connect(socket, argv[1]) == 0 &&
                          zmq_send(socket, argv[2], std::strlen(argv[2]), 0) >= 0 &&
                          zmq_msg_recv(&reply, socket, 0) >= 0;
    std::fwrite(zmq_msg_data(&reply), 1, zmq_msg_size(&reply), stdout);
    zmq_msg_close(&reply);
    zmq_close(socket);
    zmq_ctx_term(context);
    return answered ? 0 : 1;
}
