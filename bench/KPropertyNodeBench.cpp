#include <benchmark/benchmark.h>

#include <string>

#include "KAssert.h"
#include "KPropertyList.h"

namespace {

KPropertyNode& AddKey(KPropertyNode& parent, const std::string& key) {
    KPropertyNode* const pNode = new KPropertyNode();
    pNode->Set(PROPERTY_KEY, KString(key.c_str()));
    parent.AddNode(pNode);
    return *pNode;
}

/// A node with a number of keys as children. Trees are made with the checks off. A node destroys half of its children, so
/// that what a benchmark makes is taken apart by hand.
class Family {
 public:
    explicit Family(std::int64_t nChildren) {
        KAssert::SetActive(false);
        for (std::int64_t i = 0; i < nChildren; ++i) {
            AddKey(m_Parent, "key" + std::to_string(i));
        }
    }
    ~Family() {
        while (m_Parent.GetNodeCount() > 0) {
            KPropertyNode* const pChild = *m_Parent.GetNode(0);
            m_Parent.RemoveNode(0);
            delete pChild;
        }
    }
    Family(const Family&) = delete;
    Family& operator=(const Family&) = delete;

    KPropertyNode& Parent() { return m_Parent; }

 private:
    KPropertyNode m_Parent;
};

void SetTypeAndText(benchmark::State& state) {
    const KString text(std::string(static_cast<std::size_t>(state.range(0)), 'x').c_str());
    KPropertyNode node;
    for (auto _ : state) {
        benchmark::DoNotOptimize(node.Set(PROPERTY_STRING, text));
    }
}
BENCHMARK(SetTypeAndText)->Arg(8)->Arg(4096);

void GetText(benchmark::State& state) {
    KPropertyNode node;
    node.Set(PROPERTY_STRING, KString("North gate"));
    for (auto _ : state) {
        benchmark::DoNotOptimize(node.GetStringValue());
    }
}
BENCHMARK(GetText);

void GetDate(benchmark::State& state) {
    KPropertyNode node;
    node.Set(PROPERTY_DATE, KString("2010-05-06T07:08:09Z"));
    for (auto _ : state) {
        benchmark::DoNotOptimize(node.GetDateValue());
    }
}
BENCHMARK(GetDate);

void GetLastChildByIndex(benchmark::State& state) {
    Family family(state.range(0));
    const int nLast = static_cast<int>(state.range(0)) - 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(family.Parent().GetNode(nLast));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(GetLastChildByIndex)->RangeMultiplier(8)->Range(1, 4096)->Complexity(benchmark::oN);

void FindLastKeyAmongSiblings(benchmark::State& state) {
    Family family(state.range(0));
    KList<KString> path;
    path.Add(KString(("key" + std::to_string(state.range(0) - 1)).c_str()));
    for (auto _ : state) {
        benchmark::DoNotOptimize(family.Parent().GetNode(path));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(FindLastKeyAmongSiblings)->RangeMultiplier(8)->Range(1, 4096)->Complexity(benchmark::oN);

void FindKeyManyLevelsDown(benchmark::State& state) {
    KAssert::SetActive(false);
    // Each node has one child, which dies with it.
    KPropertyNode top;
    KPropertyNode* pNode = &top;
    KList<KString> path;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        pNode = &AddKey(*pNode, "key");
        path.Add(KString("key"));
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(top.GetNode(path));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(FindKeyManyLevelsDown)->RangeMultiplier(8)->Range(1, 4096)->Complexity(benchmark::oN);

void MakeAndDestroyANode(benchmark::State& state) {
    for (auto _ : state) {
        KPropertyNode node;
        benchmark::DoNotOptimize(&node);
    }
}
BENCHMARK(MakeAndDestroyANode);

void MakeAndDestroyAChain(benchmark::State& state) {
    KAssert::SetActive(false);
    for (auto _ : state) {
        KPropertyNode top;
        KPropertyNode* pNode = &top;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            pNode = &AddKey(*pNode, "key");
        }
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(MakeAndDestroyAChain)->RangeMultiplier(8)->Range(8, 1 << 15)->Complexity(benchmark::oN);

}  // namespace
