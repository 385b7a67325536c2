#include "fixtures/daemon_test.h"
#include "fixtures/service_manager.h"

#include <random>

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace VorlTest {

class ResourceFault : public DaemonTest {
protected:
    // An allowance that comes to nothing, with that among the messages; its client is let go.
    void expectNothing(const std::string& message, const std::string& before) {
        journal.forget();
        service->signalProxyAllowConnection(7, 3);
        const FileDescriptor client = connectTo(port, 1s); // there may be no listener
        EXPECT_TRUE(journal.saw({message}));
        EXPECT_TRUE(!client || ends(client));
        // But for files, which the next connection overwrites.
        EXPECT_TRUE(eventually([&] { return daemon.resources().starts_with(before); }));
    }
};

TEST_F(ResourceFault, WithoutDescriptorsItGoesOnOnceThereAreSome) {
    start();
    EXPECT_TRUE(echoes(open())); // so that what is allocated once is there
    EXPECT_TRUE(journal.saw({"PeriodicTask: remove job, *"}));
    const std::string before = idle();
    rlimit limit{};
    prlimit(daemon.process->pid(), RLIMIT_NOFILE, nullptr, &limit);
    for (const size_t left : {0U, 1U, 2U}) { // none, the listener's, and the client's
        limit.rlim_cur = daemon.descriptors() + left;
        ASSERT_EQ(prlimit(daemon.process->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
        if (left < 2)
            expectNothing("*Too many open files*", before);
    }
    EXPECT_TRUE(echoes(open()));
    EXPECT_EQ(shadow("descriptors"), "0 1 2 ");
    const auto begin = std::chrono::steady_clock::now();
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(prlimit(daemon.process->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    EXPECT_TRUE(echoes(open())) << "with the most descriptors that there can be";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

TEST_F(ResourceFault, WithoutProcessesItGoesOnOnceThereAreSome) {
    if (!hasAllAccounts())
        GTEST_SKIP() << "needs root, to run the daemon as somebody whom the limit holds";
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer has threads of its own, which count";
#endif
    const std::filesystem::path home = makeDirectory();
    const uid_t uid = 200'000 + std::random_device()() % 1'000'000; // without other processes
    ASSERT_EQ(chown(home.c_str(), uid, uid), 0);
    std::filesystem::copy(SHADOW_STUB, home / "shadow");
    std::ofstream(home / "passwd")
        << "few:x:" << uid << ":" << uid << "::" << home.string() << ":/bin/sh\n";
    const ScopedMount accounts("/etc/passwd", home / "passwd");
    ServiceManager manager;
    daemon.environment.push_back(manager.variable());
    daemon.arguments.insert(daemon.arguments.end(), {"--user", "few"});
    daemon.workDirectory = home / ".vorl";
#ifndef __SANITIZE_ADDRESS__ // needs a thread itself, at the end
    rlimit limit{};
    getrlimit(RLIMIT_NPROC, &limit);
    const rlimit none{1, limit.rlim_max};
    setrlimit(RLIMIT_NPROC, &none); // inherited by the daemon, whose threads count
    configure();
    daemon.start();
    EXPECT_EQ(daemon.process->wait(), 0) << readFile(daemon.home / "errors");
    EXPECT_TRUE(journal.saw({"exception: Resource temporarily unavailable"}));
    setrlimit(RLIMIT_NPROC, &limit);
#endif
    start(R"("x11rdp:path": ")" + (home / "shadow").string() + '"');
    const std::string before = daemon.resources();
    const auto leave = [&](size_t left) { // by its own account, which needs no privilege
        const std::string id = std::to_string(uid);
        Process change({"/usr/bin/setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups",
                        "/usr/bin/prlimit", "--pid=" + std::to_string(daemon.process->pid()),
                        "--nproc=" + std::to_string(daemon.threads() + left) + ":"},
                       {}, home);
        ASSERT_EQ(change.wait(), 0) << readFile(home / "errors");
    };
    leave(0); // not even for the acceptance task
    EXPECT_TRUE(eventually([&] { return manager.next() == "READY=1\nSTATUS=Relays: 0"; }));
    EXPECT_TRUE(eventually([&] { return manager.next(MSG_DONTWAIT).empty(); }));
    expectNothing("signalProxyAllowConnection: exception: Resource temporarily *", before);
    std::this_thread::sleep_for(600ms); // time for another look at the relays
    EXPECT_EQ(manager.next(MSG_DONTWAIT), "") << "nobody is being admitted";
    leave(1); // nor for the shadow server
    expectNothing("runChildProcess: fork failed, error: Resource temporarily *", before);
    for (const size_t left : {2U, 3U}) { // its waiter, the relay
        leave(left);
        expectNothing("*: system error: Resource temporarily *", before);
        EXPECT_TRUE(journal.saw({"*: child ended, pid: *, killed by signal: 15"}));
    }
    leave(100);
    EXPECT_TRUE(echoes(open()));
}

TEST_F(ResourceFault, WithoutSpaceNoSamFileIsHandedOver) {
    const std::filesystem::path full = daemon.workDirectory;
    create_directory(full);
    ASSERT_EQ(mount("none", full.c_str(), "tmpfs", 0, "size=4k,mode=700"), 0);
    start();
    const auto expectNoSpace = [&] {
        allow();
        EXPECT_TRUE(ends(connectTo(port)));
        EXPECT_TRUE(
            journal.saw({"prepareX11RdpArgs: write failed, error: No space left on device, *",
                         "actionCreateTransport: exception: prepareX11RdpArgs, *"}));
        EXPECT_FALSE(exists(full / "sam_3_0"));
        journal.forget();
    };
    describe(R"("ntlm": ")" + std::string(5000, 'x') + '"'); // of which there is room for a part
    expectNoSpace();
    describe("");
    std::ofstream(full / "filler") << std::string(8192, 'x');
    expectNoSpace();
    describe(R"("sec:nla": false, "sec:tls": true)"); // without a SAM file; its log stays empty
    EXPECT_TRUE(echoes(open()));
    describe("");
    std::filesystem::remove(full / "filler");
    ASSERT_EQ(mount("none", full.c_str(), "tmpfs", MS_REMOUNT, "size=1m"), 0);
    EXPECT_TRUE(echoes(open()));
    EXPECT_EQ(readFile(full / "sam_3_0"), "alice:::878d8014606cda29677a44efa1353fc7:::\n");
    stop();
    daemon.process.reset();
    umount2(full.c_str(), MNT_DETACH);
}

TEST_F(ResourceFault, APortInUseCostsTheAllowanceAndOneDescriptor) {
    start();
    allow(); // so that what is allocated once is there
    service->signalSessionDisconnected(7, 0, "");
    EXPECT_TRUE(journal.saw({"*: exception: session disconnected, *"}));
    const size_t before = daemon.descriptors();
    {
        const FileDescriptor other = boundSocket("127.0.0.1", port);
        listen(other.get(), 1);
        for (int i = 0; i < 500; ++i)
            allow();
        EXPECT_EQ(service.count("proxyListenStarted 7 false"), 500u);
        EXPECT_TRUE(
            journal.saw({"tcpListen: bind failed, error: Address already in use, code: 98"}));
        EXPECT_TRUE(eventually([&] { return daemon.descriptors() == before + 500; }))
            << daemon.descriptors() << " after " << before;
    }
    EXPECT_TRUE(echoes(open()));
    EXPECT_EQ(service.count("proxyClientConnected *"), 1u);
}

TEST_F(ResourceFault, AForeignWorkDirectoryIsRefused) {
    const auto refused = [this] {
        configure();
        journal.forget();
        daemon.start();
        EXPECT_EQ(daemon.process->wait(), 0);
        EXPECT_TRUE(journal.saw({"ProxyConnection: work directory is a link or belongs to another "
                                 "account, *, path: `" +
                                     daemon.workDirectory.string() + "', uid: *",
                                 "exception: ProxyConnection"}));
    };
    const std::filesystem::path elsewhere = makeDirectory();
    create_directory_symlink(elsewhere, daemon.workDirectory);
    refused();
    std::filesystem::remove(daemon.workDirectory);
    create_directory(daemon.workDirectory);
    if (hasAllAccounts()) {
        ASSERT_EQ(chown(daemon.workDirectory.c_str(), 12345, 12345), 0);
        refused();
        ASSERT_EQ(chown(daemon.workDirectory.c_str(), 0, 0), 0);
    }
    const std::filesystem::path precious = elsewhere / "precious"; // no file is followed to it
    std::ofstream(precious) << "kept";
    create_symlink(precious, daemon.workDirectory / "sam_3_0");
    create_symlink(precious, daemon.workDirectory / "rdp_transport_1000_0.log");
    start();
    {
        const FileDescriptor client = open();
        EXPECT_TRUE(echoes(client));
        std::istringstream child(daemon.children());
        std::string pid;
        child >> pid;
        for (const char* stream : {"/fd/1", "/fd/2"})
            EXPECT_EQ(std::filesystem::read_symlink("/proc/" + pid + stream), "/dev/null");
    }
    EXPECT_EQ(readFile(precious), "kept");
    EXPECT_TRUE(journal.saw({"redirectOutputsFdTo: log file cannot be opened, output is lost, "
                             "error: Too many levels of symbolic links, code: 40, path: `*'"}));
    create_hard_link(precious, daemon.workDirectory / "sam_9_0");
    std::ofstream(daemon.workDirectory / "rdp_transport_2000_0.log") << std::string(100'000, 'x');
    describe(R"("uid": 2000)");
    EXPECT_TRUE(echoes(open(9, 9)));
    EXPECT_TRUE(journal.saw({"*, /sam-file:*/sam_9_0, *"})) << "made anew";
    EXPECT_EQ(readFile(precious), "kept");
    EXPECT_LT(file_size(daemon.workDirectory / "rdp_transport_2000_0.log"), 50'000u);
}

TEST_F(ResourceFault, TheWorkDirectoryIsClosedToOthers) {
    const auto mode = [this] {
        struct stat status {};
        stat(daemon.workDirectory.c_str(), &status);
        return status.st_mode & 07777;
    };
    const mode_t before = umask(0);
    start();
    umask(before);
    EXPECT_EQ(mode(), 0700u) << "of a new one, whatever the umask";
    stop();
    ASSERT_EQ(chmod(daemon.workDirectory.c_str(), 02772), 0);
    start();
    EXPECT_EQ(mode(), 02750u);
    EXPECT_TRUE(journal.saw({"ProxyConnection: work directory could be written by other accounts, "
                             "no longer can, path: `*'"}));
    stop();
    start();
    EXPECT_EQ(journal.count("*work directory*"), 0u) << "of one that needs no change";
    stop();

    const std::filesystem::path readOnly = daemon.workDirectory;
    ASSERT_EQ(mount("none", readOnly.c_str(), "tmpfs", MS_RDONLY, "mode=755"), 0);
    start(); // nothing to change
    stop();
    daemon.process.reset();
    ASSERT_EQ(mount("none", readOnly.c_str(), "tmpfs", MS_REMOUNT, nullptr), 0);
    ASSERT_EQ(chmod(readOnly.c_str(), 0777), 0);
    ASSERT_EQ(mount("none", readOnly.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
    journal.forget();
    daemon.start();
    EXPECT_EQ(daemon.process->wait(), 0);
    EXPECT_TRUE(journal.saw({"ProxyConnection: work directory can be written by other accounts and "
                             "cannot be changed: Read-only file system, remove it or choose "
                             "another HOME, path: `*', uid: *",
                             "exception: ProxyConnection"}));
    daemon.process.reset();
    umount2(readOnly.c_str(), MNT_DETACH);
    if (!hasAllAccounts())
        return;
    ASSERT_EQ(chown(daemon.home.c_str(), 12345, 12345), 0);
    start();
    EXPECT_TRUE(journal.saw({"ProxyConnection: home belongs to another account, *, path: `*', "
                             "owner: 12345, uid: *"},
                            0ms));
}

TEST_F(ResourceFault, NothingHostileOnTheListenerCostsMoreThanItsAllowance) {
    start(stub("mute"));
    open(); // so that what is allocated once is there
    EXPECT_TRUE(journal.saw({"PeriodicTask: remove job, *"}));
    const std::string before = idle();
    for (int i = 0; i < 20; ++i) {
        allow();
        FileDescriptor client = connectTo(port);
        const std::string noise(static_cast<size_t>(i) * 1000, static_cast<char>(i * 37));
        send(client.get(), noise.data(), noise.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        const linger reset{i % 2, 0};
        setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        if (i % 3 == 0)
            shutdown(client.get(), SHUT_WR);
    }
    EXPECT_TRUE(holds(before));
}

TEST_F(ResourceFault, AfterAKillTheNextDaemonWorks) {
    start();
    const FileDescriptor client = open();
    const pid_t orphan = static_cast<pid_t>(shadowPid());
    daemon.process->signal(SIGKILL);
    EXPECT_EQ(daemon.process->wait(), 128 + SIGKILL);
    EXPECT_TRUE(ends(client));
    start();
    EXPECT_TRUE(echoes(open()));
    EXPECT_NE(static_cast<pid_t>(shadowPid()), orphan);
    kill(orphan, SIGKILL);
}

} // namespace VorlTest
