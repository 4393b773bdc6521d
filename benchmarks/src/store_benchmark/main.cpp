#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "common/comparison.h"
#include "common/require.h"
#include "common/sample_configuration.h"
#include "common/temporary_folder.h"
#include "hox/observer_tree/observer_tree.h"
#include "hox/observer_tree/persistence/node_data_file_hndlr.h"
#include "hox/observer_tree/persistence/persistence_hndlr.h"
#include "hox/observer_tree/utils.h"
#include "store_benchmark/naive_store.h"

namespace fs = std::filesystem;

namespace Hox::Benchmarks {

namespace {

namespace Tree = Hox::ObserverTree;

constexpr auto slice = "/sys/conf/head/1/settings";

Tree::ChangeSetType sampleChanges(int keys) {
    Tree::ChangeSetType changes;
    for (int i = 0; i < keys; ++i) {
        Tree::addToChangeSet(changes, slice + settingKey(i),
                             std::make_shared<const Tree::DataTreeVal>(settingValue(i)), nullptr,
                             0);
    }
    return changes;
}

/// A tree that persists everything under /sys/conf, as the configuration capability does.
class PersistentTree {
public:
    std::size_t load(const fs::path& folder) {
        m_persistence.init(false, folder.string());
        return m_tree
            .callApiOp<Tree::UnaryOps::READ, Tree::ReadDataTreeReq, Tree::ReadDataTreeResp>(
                "/.persist_upd_hndlr.", everything())
            .message->changeset()
            .node_change_map()
            .size();
    }

    void loadOnly(const fs::path& folder) { m_persistence.init(false, folder.string()); }

private:
    static Tree::ReadDataTreeReq everything() {
        Tree::ReadDataTreeReq request;
        request.set_regex("/.*");
        return request;
    }

    Tree::ObserverTree m_tree;
    std::unique_ptr<std::unique_lock<std::mutex>> m_noLock;
    Tree::PersistenceHndlr m_persistence{m_tree, m_noLock, "", "", "", "/sys/conf/.*"};
};

void checkSame(const NaiveStore::Values& ours, const NaiveStore::Values& theirs) {
    require(std::equal(ours.begin(), ours.end(), theirs.begin(), theirs.end(),
                       [](const auto& left, const auto& right) {
                           return left.first == right.first &&
                                  google::protobuf::util::MessageDifferencer::Equals(left.second,
                                                                                     right.second);
                       }),
            "The store wrote something else than the naive program");
}

void run(const fs::path& parent, int keys, int rounds) {
    const auto changes = sampleChanges(keys);
    Comparison saving("write the keys into an empty folder: ms", 0.75);
    Comparison again("write them once more: ms", 0.85);
    Comparison reading("read and parse the files: ms", 1.0);
    Comparison loading("load them into a tree: ms", 1.1);
    Tree::NodeDataFileHndlr store;
    for (int round = 0; round < rounds; ++round) {
        const TemporaryFolder folder(parent);
        const auto ours = folder / "ours";
        const auto theirs = folder / "theirs";
        const auto saveOurs = [&] { store.saveChangeSet(changes, ours); };
        const auto saveTheirs = [&] { NaiveStore::save(changes, theirs); };
        saving.measure(saveOurs, saveTheirs);
        again.measure(saveOurs, saveTheirs);
        if (round == 0) {
            checkSame(NaiveStore::load(ours), NaiveStore::load(theirs));
            require(PersistentTree().load(ours) == changes.size(), "Not all keys were loaded");
        }
        Tree::ChangeSetType read;
        NaiveStore::Values first;
        NaiveStore::Values second;
        PersistentTree tree;
        reading.measure([&] { read = store.readNodeData(ours); },
                        [&] { first = NaiveStore::load(ours); });
        loading.measure([&] { tree.loadOnly(ours); }, [&] { second = NaiveStore::load(ours); });
    }
    Comparison::printHeading("store", "naive");
    saving.print();
    again.print();
    reading.print();
    loading.print();
}

/// Reads and parses the values once and prints the processor time as one line of JSON.
void read(const fs::path& folder) {
    const auto begin = std::clock();
    NaiveStore::load(folder);
    std::printf("{\"cpu_us\": %.0f}\n",
                static_cast<double>(std::clock() - begin) * 1e6 / CLOCKS_PER_SEC);
}

}  // namespace

}  // namespace Hox::Benchmarks

int main(int argc, char** argv) {
    if (argc > 4) {
        std::fputs(
            "Usage: halvo-store-benchmark [<folder> [<keys> [<rounds>]]]\n"
            "       halvo-store-benchmark read <folder>\n",
            stderr);
        return EXIT_FAILURE;
    }
    try {
        if (argc == 3 && std::string(argv[1]) == "read") {
            Hox::Benchmarks::read(argv[2]);
            return EXIT_SUCCESS;
        }
        Hox::Benchmarks::run(argc > 1 ? argv[1] : "/dev/shm", argc > 2 ? std::stoi(argv[2]) : 10000,
                             argc > 3 ? std::stoi(argv[3]) : 9);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
