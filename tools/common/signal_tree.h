// The signal tree of a client of the public interface (the tool and the Python module), linked
// from a flat table of signals that each name their parent. Header only; one thread.
#ifndef TARVEL_TOOLS_COMMON_SIGNAL_TREE_H
#define TARVEL_TOOLS_COMMON_SIGNAL_TREE_H

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace Tarvel::Client {

// The full name of signals[index] and of its parents not named yet, from the top down: local
// names joined with '.', an element's "(7)" following its bus directly. A parent chain that loops
// (only a damaged file makes one) is cut: the signal where the loop closes is put at the top.
template <class Signal>
void NameFully(std::vector<Signal>& signals, int index, std::vector<bool>& named) {
    std::vector<int> chain;  // from `index` up to the first signal named already
    for (int at = index; at >= 0 && !named[static_cast<std::size_t>(at)];) {
        if (std::find(chain.begin(), chain.end(), at) != chain.end()) {
            signals[static_cast<std::size_t>(chain.back())].parent = -1;
            break;
        }
        chain.push_back(at);
        at = signals[static_cast<std::size_t>(at)].parent;
    }
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        Signal& s = signals[static_cast<std::size_t>(*it)];
        named[static_cast<std::size_t>(*it)] = true;
        if (s.parent < 0) {
            s.fullName = s.name;
            continue;
        }
        const std::string& up = signals[static_cast<std::size_t>(s.parent)].fullName;
        s.fullName = !s.name.empty() && s.name[0] == '(' ? up + s.name : up + "." + s.name;
    }
}

// Gives every signal its full name and its children in position order, and collects the
// signals without a parent into `top` when it is not null. `Signal` has name, fullName, parent,
// position and children.
template <class Signal>
void LinkSignalTree(std::vector<Signal>& signals, std::vector<int>* top) {
    std::vector<bool> named(signals.size());
    for (std::size_t i = 0; i < signals.size(); ++i) NameFully(signals, static_cast<int>(i), named);
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const int parent = signals[i].parent;
        if (parent >= 0) {
            signals[static_cast<std::size_t>(parent)].children.push_back(static_cast<int>(i));
        } else if (top) {
            top->push_back(static_cast<int>(i));
        }
    }
    for (Signal& s : signals) {
        std::stable_sort(s.children.begin(), s.children.end(), [&signals](int a, int b) {
            return signals[static_cast<std::size_t>(a)].position < signals[static_cast<std::size_t>(b)].position;
        });
    }
}

}  // namespace Tarvel::Client

#endif  // TARVEL_TOOLS_COMMON_SIGNAL_TREE_H
