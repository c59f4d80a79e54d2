// avpool serve: an RTSP server for the streaming profiles of the information
// area, one mount per profile (/profile0 ...): H.264 from a video pool, MJPEG
// from a picture pool, each client on a pipeline of its own that starts on
// the newest picture (video: an I frame). Every client holds a slat of the
// connection budget from its first DESCRIBE or SETUP until its TEARDOWN or the
// end of its connection; a client the budget cannot fit is answered
// "503 Service Unavailable". Built only where gst-rtsp-server is found.

#include "verbs/verbs.h"

#ifdef AVPOOL_SERVE
#include "cli/io.h"
#include "kinds/infos_view.h"
#include "kinds/pool_kinds.h"
#include "publish/video_profile.h"

#include <avpool/infos.h>

#include <glib-unix.h>
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>

#include <climits>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>
#endif

namespace avpool::cli {

namespace {

#ifdef AVPOOL_SERVE

constexpr int DEFAULT_PORT = 8554;
// The slats of RTSP clients carry this userType (the demo's consumers 1, the
// active users added from C 4).
constexpr int RTSP_CLIENT_USER_TYPE = 2;
// A plain client costs one unit whatever the profile: the server only copies
// frames the encoder has already encoded and paid for; the weights the area
// gives per profile (3 and 4, by picture size) price the encryption of an SSL
// client, which this server does not offer.
constexpr int PLAIN_CLIENT_WEIGHT = 1;

struct Mount {
    int profile;
    int channel;
    bool jpeg;          // a picture pool (infoParam3 1), otherwise a video pool
    std::string path;   // "/profile0"
};

// What one client holds of the budget. Its own getter, so that the slat goes
// back when the seat goes (the getter's destructor), and, the slat taken with
// autoReturn, when the server dies (the next user of the budget frees it).
struct Seat {
    InfosGetter infos;
    int slat = -1;
    std::string address;  // "10.0.0.7:51234"
};

struct Server {
    std::vector<Mount> mounts;
    std::mutex lock;  // the seats: client signals may come from the server's threads
    std::map<GstRTSPClient*, std::unique_ptr<Seat>> seats;
    GMainLoop* loop = nullptr;
};

std::string clientAddress(GstRTSPClient* client) {
    GstRTSPConnection* connection = gst_rtsp_client_get_connection(client);
    if (connection == nullptr) return "?";
    std::string address = gst_rtsp_connection_get_ip(connection);
    GSocketAddress* remote = g_socket_get_remote_address(gst_rtsp_connection_get_read_socket(connection), nullptr);
    if (remote != nullptr) {
        if (G_IS_INET_SOCKET_ADDRESS(remote))
            address += ":" + std::to_string(g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(remote)));
        g_object_unref(remote);
    }
    return address;
}

// The mount a request's path is for: the mount itself or a stream under it.
const Mount* mountOf(const Server& server, GstRTSPContext* context) {
    if (context->uri == nullptr || context->uri->abspath == nullptr) return nullptr;
    std::string path = context->uri->abspath;
    for (const Mount& mount : server.mounts)
        if (path == mount.path || path.compare(0, mount.path.size() + 1, mount.path + "/") == 0) return &mount;
    return nullptr;
}

void say(const std::string& line) {
    printf("%s\n", line.c_str());
    fflush(stdout);
}

// Before DESCRIBE and SETUP: a client without a seat takes one, or is refused.
// takeConn's own test decides (a client that exactly fills the budget fits).
GstRTSPStatusCode takeSeat(GstRTSPClient* client, GstRTSPContext* context, gpointer data) {
    Server& server = *static_cast<Server*>(data);
    const Mount* mount = mountOf(server, context);
    if (mount == nullptr) return GST_RTSP_STS_OK;  // the server answers 404 itself
    std::lock_guard<std::mutex> guard(server.lock);
    if (server.seats.count(client) != 0) return GST_RTSP_STS_OK;
    std::unique_ptr<Seat> seat(new Seat);
    seat->address = clientAddress(client);
    std::string name = "rtsp " + mount->path;
    try {
        seat->infos.init(INFOS_KEY);
        seat->slat = seat->infos.takeConn(name.c_str(), seat->address.c_str(), RTSP_CLIENT_USER_TYPE,
                                          PLAIN_CLIENT_WEIGHT, true);
    } catch (const InfosGetterError& error) {
        say("refused " + seat->address + " " + mount->path + ": " + error.what() + " (503)");
        return GST_RTSP_STS_SERVICE_UNAVAILABLE;
    }
    say("client " + seat->address + " " + mount->path + ": slat " + std::to_string(seat->slat) + ", " +
        std::to_string(seat->infos.getCurrentTotalConnections()) + " of " +
        std::to_string(seat->infos.getMaxConnections()) + " units taken");
    server.seats[client] = std::move(seat);
    return GST_RTSP_STS_OK;
}

// The seat goes (its getter returns the slat) at TEARDOWN and when the
// connection ends, whichever comes first.
void leaveSeat(Server& server, GstRTSPClient* client, const char* how) {
    std::lock_guard<std::mutex> guard(server.lock);
    auto found = server.seats.find(client);
    if (found == server.seats.end()) return;
    std::string address = found->second->address;
    server.seats.erase(found);
    say("left " + address + " (" + how + ")");
}

void onTeardown(GstRTSPClient* client, GstRTSPContext*, gpointer data) {
    leaveSeat(*static_cast<Server*>(data), client, "teardown");
}

void onClosed(GstRTSPClient* client, gpointer data) {
    leaveSeat(*static_cast<Server*>(data), client, "connection closed");
}

// The users table says which clients are playing.
void onPlay(GstRTSPClient* client, GstRTSPContext*, gpointer data) {
    Server& server = *static_cast<Server*>(data);
    std::lock_guard<std::mutex> guard(server.lock);
    auto found = server.seats.find(client);
    if (found == server.seats.end()) return;
    Seat& seat = *found->second;
    std::string info = seat.address + " playing";
    seat.infos.resetUserSlat(nullptr, info.c_str(), seat.slat);
}

void onClientConnected(GstRTSPServer*, GstRTSPClient* client, gpointer data) {
    g_signal_connect(client, "pre-describe-request", G_CALLBACK(takeSeat), data);
    g_signal_connect(client, "pre-setup-request", G_CALLBACK(takeSeat), data);
    g_signal_connect(client, "teardown-request", G_CALLBACK(onTeardown), data);
    g_signal_connect(client, "play-request", G_CALLBACK(onPlay), data);
    g_signal_connect(client, "closed", G_CALLBACK(onClosed), data);
}

// An encoder that sends its SPS and PPS only once (a GStreamer pipeline
// without config-interval) leaves a client that joins later without them. The
// parameter sets the information area publishes for the profile go in front
// of every I frame that lacks them, so the SDP and the decoder get them.
struct ParameterSets {
    std::vector<unsigned char> annexB;  // 00 00 00 01 SPS 00 00 00 01 PPS
};

GstPadProbeReturn prependParameterSets(GstPad*, GstPadProbeInfo* info, gpointer data) {
    const ParameterSets& sets = *static_cast<const ParameterSets*>(data);
    GstBuffer* frame = GST_PAD_PROBE_INFO_BUFFER(info);
    if (frame == nullptr || GST_BUFFER_FLAG_IS_SET(frame, GST_BUFFER_FLAG_DELTA_UNIT)) return GST_PAD_PROBE_OK;
    GstMapInfo map;
    if (!gst_buffer_map(frame, &map, GST_MAP_READ)) return GST_PAD_PROBE_OK;
    std::vector<unsigned char> sps, pps;
    publish::findParameterSets(map.data, map.size, sps, pps);
    gst_buffer_unmap(frame, &map);
    if (!sps.empty()) return GST_PAD_PROBE_OK;
    GstBuffer* joined = gst_buffer_new_allocate(nullptr, sets.annexB.size(), nullptr);
    gst_buffer_fill(joined, 0, sets.annexB.data(), sets.annexB.size());
    gst_buffer_copy_into(joined, frame, GST_BUFFER_COPY_METADATA, 0, static_cast<gsize>(-1));
    joined = gst_buffer_append(joined, frame);
    GST_PAD_PROBE_INFO_DATA(info) = joined;
    return GST_PAD_PROBE_OK;
}

void onMediaConfigure(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer data) {
    const Mount& mount = *static_cast<const Mount*>(data);
    if (mount.jpeg) return;
    std::unique_ptr<ParameterSets> sets(new ParameterSets);
    try {
        InfosGetter infos;
        infos.init(INFOS_KEY);
        int spsSize = infos.getSPSSize(mount.profile);
        int ppsSize = infos.getPPSSize(mount.profile);
        if (spsSize <= 0 || ppsSize <= 0) return;
        const unsigned char startCode[] = {0, 0, 0, 1};
        for (auto [bytes, size] : {std::make_pair(infos.getSPS(mount.profile), spsSize),
                                   std::make_pair(infos.getPPS(mount.profile), ppsSize)}) {
            sets->annexB.insert(sets->annexB.end(), startCode, startCode + sizeof startCode);
            sets->annexB.insert(sets->annexB.end(), bytes, bytes + size);
        }
    } catch (const InfosGetterError&) {
        return;
    }
    GstElement* bin = gst_rtsp_media_get_element(media);
    GstElement* source = gst_bin_get_by_name(GST_BIN(bin), "src");
    GstPad* pad = gst_element_get_static_pad(source, "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, prependParameterSets, sets.release(),
                      [](gpointer sets) { delete static_cast<ParameterSets*>(sets); });
    gst_object_unref(pad);
    gst_object_unref(source);
    gst_object_unref(bin);
}

// The streaming profiles the encoder published (state 2), each from the pool
// its infoParam3 names: 1 a picture pool, otherwise a video pool.
std::vector<Mount> publishedMounts() {
    InfoAreaView view(INFOS_KEY);  // a missing area ends here, with one line
    InfosGetter infos;
    infos.init(INFOS_KEY);
    std::vector<Mount> mounts;
    for (int p = 0; p < infos.getSizeofPools() && p < MAX_MEDIA_POOL; ++p) {
        int state, channel, infoParam3;
        infos.getInfo(p, state, channel, infoParam3);
        if (state != PROFILE_STREAMING) continue;
        mounts.push_back({p, channel, infoParam3 == PROFILE_JPEG, "/profile" + std::to_string(p)});
    }
    if (mounts.empty()) throw CliError("serve: the information area has no streaming profile (state 2)");
    return mounts;
}

bool haveElement(const char* name) {
    GstElementFactory* factory = gst_element_factory_find(name);
    if (factory == nullptr) return false;
    gst_object_unref(factory);
    return true;
}

// The elements the mounts' pipelines use, avpoolsrc looked for also where an
// install puts the plugin beside this tool (bin/../lib/.../gstreamer-1.0).
void requireElements(const std::vector<Mount>& mounts) {
    if (!haveElement("avpoolsrc")) {
        char self[PATH_MAX];
        ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
        if (length > 0) {
            std::string dir(self, static_cast<size_t>(length));
            dir = dir.substr(0, dir.rfind('/')) + "/../" + AVPOOL_GST_PLUGIN_DIR;
            gst_registry_scan_path(gst_registry_get(), dir.c_str());
        }
    }
    struct Need {
        const char* element;
        const char* package;
        bool jpeg;
        bool video;
    };
    const Need needs[] = {{"avpoolsrc", "gstreamer1.0-avpool, or its folder in GST_PLUGIN_PATH", true, true},
                          {"rtpjpegpay", "gstreamer1.0-plugins-good", true, false},
                          {"h264parse", "gstreamer1.0-plugins-bad", false, true},
                          {"rtph264pay", "gstreamer1.0-plugins-good", false, true}};
    for (const Need& need : needs)
        for (const Mount& mount : mounts)
            if ((mount.jpeg ? need.jpeg : need.video) && !haveElement(need.element))
                throw CliError(std::string("serve: GStreamer has no ") + need.element + " element (" + need.package +
                               ")");
}

std::string launchLine(const Mount& mount) {
    std::string source = "avpoolsrc name=src kind=" + std::string(mount.jpeg ? "jpg" : "mp4") +
                         " channel=" + std::to_string(mount.channel);
    if (mount.jpeg) return "( " + source + " ! rtpjpegpay name=pay0 pt=26 )";
    return "( " + source + " ! h264parse config-interval=-1 ! rtph264pay name=pay0 pt=96 )";
}

gboolean quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

int runServe(const ParsedArgs& args) {
    args.expectPositional(0, "no arguments besides options");
    int port = args.intOption("--port", DEFAULT_PORT, 0, 65535);
    std::string address = args.stringOption("--address", "0.0.0.0");
    gst_init(nullptr, nullptr);
    Server state;
    state.mounts = publishedMounts();
    requireElements(state.mounts);

    GstRTSPServer* server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, address.c_str());
    gst_rtsp_server_set_service(server, std::to_string(port).c_str());
    GstRTSPMountPoints* mountPoints = gst_rtsp_server_get_mount_points(server);
    for (const Mount& mount : state.mounts) {
        GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
        gst_rtsp_media_factory_set_launch(factory, launchLine(mount).c_str());
        // A pipeline per client: each starts on the newest picture.
        gst_rtsp_media_factory_set_shared(factory, FALSE);
        g_signal_connect(factory, "media-configure", G_CALLBACK(onMediaConfigure), const_cast<Mount*>(&mount));
        gst_rtsp_mount_points_add_factory(mountPoints, mount.path.c_str(), factory);
    }
    g_object_unref(mountPoints);
    g_signal_connect(server, "client-connected", G_CALLBACK(onClientConnected), &state);
    if (gst_rtsp_server_attach(server, nullptr) == 0) {
        g_object_unref(server);
        throw CliError("serve: cannot listen on " + address + " port " + std::to_string(port));
    }
    int bound = gst_rtsp_server_get_bound_port(server);
    std::string host = address == "0.0.0.0" ? "HOST" : address;
    say("listening on " + address + " port " + std::to_string(bound));
    for (const Mount& mount : state.mounts)
        say("rtsp://" + host + ":" + std::to_string(bound) + mount.path + "  " +
            (mount.jpeg ? "MJPEG from the jpg pool" : "H.264 from the mp4 pool") + " on channel " +
            std::to_string(mount.channel) + ", " + std::to_string(PLAIN_CLIENT_WEIGHT) + " unit a client");

    state.loop = g_main_loop_new(nullptr, FALSE);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) g_unix_signal_add(signal, quit, state.loop);
    g_main_loop_run(state.loop);
    {
        std::lock_guard<std::mutex> guard(state.lock);
        state.seats.clear();  // every client's slat back
    }
    g_main_loop_unref(state.loop);
    g_object_unref(server);
    return 0;
}

#else

int runServe(const ParsedArgs&) {
    throw CliError("serve: this avpool was built without the RTSP server (" AVPOOL_SERVE_MISSING ")");
}

#endif

}  // namespace

const Verb serveVerb = {
    "serve",
    "[--port N] [--address A]",
    "serve the streaming profiles over RTSP",
    "An RTSP server with one mount per streaming profile (state 2) of the\n"
    "information area: rtsp://HOST:PORT/profile0 and so on. A profile whose\n"
    "infoParam3 is 1 is served as MJPEG from its jpg pool, any other as H.264\n"
    "from its mp4 pool, each client from the newest picture (H.264: an I frame).\n"
    "\n"
    "Every client takes a slat of the connection budget at its first DESCRIBE\n"
    "or SETUP (weight 1, userType 2, userName \"rtsp /profileN\", userInfo its\n"
    "address, \"playing\" added once it plays) and gives it back at TEARDOWN or\n"
    "when its connection ends; a client the budget cannot fit is answered\n"
    "503 Service Unavailable. The slats of a killed server come back at the\n"
    "next use of the budget. Runs until SIGINT or SIGTERM.\n"
    "\n"
    "Exits 1 when there is no information area or no streaming profile, when\n"
    "GStreamer lacks an element it needs (avpoolsrc, h264parse, rtph264pay,\n"
    "rtpjpegpay), when it cannot listen, and when this avpool was built without\n"
    "gst-rtsp-server.\n",
    {{"--port", "N", "TCP port to listen on (default 8554; 0: any free port, printed)"},
     {"--address", "A", "address to listen on (default 0.0.0.0: all)"}},
    runServe,
};

}  // namespace avpool::cli
