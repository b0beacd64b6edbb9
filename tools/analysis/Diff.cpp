#include "Diff.h"

#include "Quantiles.h"
#include "SelfTime.h"
#include "Student.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <utility>

// How a change is told from noise.
//
// 1. The pieces of one request depend on each other, and so do requests that follow each other: the
//    machine is busy for a while. What is resampled are stretches of whole requests that follow
//    each other; of their children, where there are too few requests.
// 2. A quantile's interval is that between two ranks: the share of pieces below it varies from one
//    bootstrap sample to the next, and the values at the ends of that range bound it. Unlike the
//    quantile's own variation this also holds where values stand in two heaps. A total's comes from
//    its own variation.
// 3. The level is shared out among all comparisons.
// 4. Two runs also differ as a whole: the machine was busy, the caches were cold. No resampling of
//    one run shows that. What the other labels did does: a label has to stand out from them.
// 5. One change brings others about, and only the first is meant: see Settle.
namespace Metrics::tools {

namespace {

using Kind = Diff::Kind;
using Quantity = Diff::Quantity;
using Key = std::pair<Kind, NameId>;

constexpr double level = 0.01; ///< the chance of any false change
constexpr std::size_t fewestParts = 10;
constexpr std::size_t mostBlocks = 60;
constexpr std::size_t fewestStretches = 12; ///< where there are so many parts
constexpr int deepest = 16;                 ///< how far requests are taken apart to get parts
constexpr int samplesTaken = 400;
constexpr double outstanding = 4; ///< times what the others moved

/// What few slow pieces decide drifts so many times as far as what most of them do.
constexpr double tailDrift = 4;

// What occurs once has no variation to go by.
constexpr double onceFactor = 5;
constexpr double onceNanoseconds = 100e6;

// Beside a large change, one that adds less than this share of it goes unnamed: threads that have
// slept find their caches cold, for one.
constexpr double worthNaming = 0.1;
// And less than this, when it goes the other way: threads that sleep leave the processors to
// others.
constexpr double worthNamingOpposite = 0.5;

// Nor is what adds less than this to each piece, and less than that share to the run: the events of
// nested scopes cost about as much, and count as self time.
constexpr double eventNanoseconds = 1000;
constexpr double worthOfRun = 0.02;

double Log(double nanoseconds) {
    return std::log(std::max(nanoseconds, 1.0));
}

struct Sample {
    Nanoseconds value;
    std::uint32_t block;
};

/// All pieces of one label, or all requests of one name, in one run.
struct Pieces {
    std::vector<Sample> samples;
    double total = 0;
    double alone = 0;        ///< of the total, what passed while no work handed over was going on
    std::set<NameId> within; ///< labels: of contexts below; requests: of all of it
};

/// One of the two runs, and how its pieces may be resampled.
struct Side {
    const Run* run = nullptr;
    std::vector<Index> requests;
    std::vector<std::uint32_t> blocks; ///< of each context
    std::size_t parts = 0;
    std::size_t blockCount = 0;
    std::size_t stretches = 0; ///< of blocks that follow each other, which are resampled together
    std::vector<std::array<std::uint16_t, mostBlocks>> weights; ///< of each bootstrap sample
    std::map<Key, Pieces> pieces;
};

struct Part {
    std::uint64_t opened;
    Index context;
};

/// The contexts that parts begin with, when requests are taken apart down to this depth.
/// @param starts gets, for each context, the one that its part begins with.
std::vector<Part> TakeApart(const Run& run, const std::vector<Index>& requests, int depth,
                            std::vector<Index>& starts) {
    std::vector<bool> isRequest(run.contexts.size());
    for (const Index request : requests)
        isRequest[request] = true;
    starts.assign(run.contexts.size(), none);
    std::vector<Part> parts;
    std::vector<std::pair<Index, int>> todo; // and how far below its request
    const auto visit = [&](Index i, Index start, int below) {
        starts[i] = start;
        if (start == i && run.contexts[i].opened != never && below >= 0)
            parts.push_back({run.contexts[i].opened, i});
        todo.emplace_back(i, below);
    };
    constexpr int outside = -1;
    for (Index i = 0; i < run.contexts.size(); ++i)
        if (run.contexts[i].parent == none)
            visit(i, i, isRequest[i] ? 0 : outside);
    while (!todo.empty()) {
        const auto [i, below] = todo.back();
        todo.pop_back();
        for (const Index child : run.ChildrenOf(run.contexts[i])) {
            if (starts[child] != none)
                continue;
            if (below == outside)
                visit(child, isRequest[child] ? child : starts[i], isRequest[child] ? 0 : outside);
            else
                visit(child, below < depth ? child : starts[i], below + 1);
        }
    }
    std::sort(parts.begin(), parts.end(), [](const Part& a, const Part& b) {
        return a.opened != b.opened ? a.opened < b.opened : a.context < b.context;
    });
    return parts;
}

void MakeBlocks(Side& side, const std::vector<Part>& parts, const std::vector<Index>& starts) {
    side.parts = parts.size();
    const std::size_t most = std::clamp<std::size_t>(parts.size(), 1, mostBlocks);
    const std::size_t length = std::max<std::size_t>(1, most / fewestStretches);
    side.stretches = most / length;
    side.blockCount = side.stretches * length;
    std::vector<std::uint32_t> blockOf(starts.size(), 0);
    for (std::size_t i = 0; i < parts.size(); ++i)
        blockOf[parts[i].context] = static_cast<std::uint32_t>(i * side.blockCount / parts.size());
    side.blocks.resize(starts.size());
    for (std::size_t i = 0; i < starts.size(); ++i)
        side.blocks[i] = starts[i] == none ? 0 : blockOf[starts[i]];

    std::mt19937_64 random(1);
    std::uniform_int_distribution<std::size_t> any(0, side.blockCount - 1);
    side.weights.assign(samplesTaken, {});
    for (auto& weights : side.weights)
        for (std::size_t i = 0; i < side.stretches; ++i) {
            const std::size_t start = any(random);
            for (std::size_t j = 0; j < length; ++j)
                ++weights[(start + j) % side.blockCount];
        }
}

using Interval = std::pair<std::uint64_t, std::uint64_t>;

/// When contexts below this one were waiting or at work: in order, without overlaps. Also which
/// labels they have.
/// @param except leaves out those of this thread.
std::vector<Interval> WorkBelow(const Run& run, const Context& context, std::int64_t except,
                                std::set<NameId>& labels) {
    std::vector<Interval> intervals;
    const auto own = run.ChildrenOf(context);
    std::vector<Index> todo(own.begin(), own.end());
    while (!todo.empty()) {
        const Context& below = run.contexts[todo.back()];
        todo.pop_back();
        const auto children = run.ChildrenOf(below);
        todo.insert(todo.end(), children.begin(), children.end());
        if (below.opened == never || below.tid == noThread || below.tid == except)
            continue;
        intervals.emplace_back(std::min(below.created, below.opened), below.closed);
        for (const Scope& scope : run.ScopesOf(below))
            labels.insert(scope.label);
    }
    std::sort(intervals.begin(), intervals.end());
    std::vector<Interval> merged;
    for (const Interval& interval : intervals) {
        if (!merged.empty() && interval.first <= merged.back().second)
            merged.back().second = std::max(merged.back().second, interval.second);
        else
            merged.push_back(interval);
    }
    return merged;
}

Nanoseconds Overlap(const Scope& scope, const std::vector<Interval>& intervals) {
    auto next = std::partition_point(intervals.begin(), intervals.end(),
                                     [&](const Interval& i) { return i.second <= scope.start; });
    Nanoseconds overlap = 0;
    for (; next != intervals.end() && next->first < scope.end; ++next)
        overlap += Between(std::max(next->first, scope.start), std::min(next->second, scope.end));
    return overlap;
}

void AddLabels(Side& side) {
    const Run& run = *side.run;
    const std::vector<std::uint64_t> self = SelfTimes(run);
    for (Index c = 0; c < run.contexts.size(); ++c) {
        const Context& context = run.contexts[c];
        std::set<NameId> labelsBelow;
        std::vector<Interval> below;
        if (context.childCount > 0 && context.scopeCount > 0)
            below = WorkBelow(run, context, context.tid, labelsBelow);
        for (Index i = context.firstScope; i < context.firstScope + context.scopeCount; ++i) {
            const Scope& scope = run.scopes[i];
            if (!scope.IsWhole())
                continue;
            Pieces& pieces = side.pieces[{Kind::Label, scope.label}];
            pieces.samples.push_back({self[i], side.blocks[c]});
            pieces.total += static_cast<double>(self[i]);
            pieces.alone += static_cast<double>(self[i] - std::min(self[i], Overlap(scope, below)));
            if (!below.empty())
                pieces.within.insert(labelsBelow.begin(), labelsBelow.end());
        }
    }
}

void AddRequests(Side& side) {
    const Run& run = *side.run;
    for (const Index r : side.requests) {
        const Context& request = run.contexts[r];
        if (!request.IsWhole())
            continue;
        Pieces& pieces = side.pieces[{Kind::Request, request.name}];
        pieces.samples.push_back({request.Duration(), side.blocks[r]});
        pieces.total += static_cast<double>(request.Duration());
        pieces.alone = pieces.total;
        WorkBelow(run, request, noThread, pieces.within);
        for (const Scope& scope : run.ScopesOf(request))
            pieces.within.insert(scope.label);
    }
}

/// A quantity of one run. On the scale of logarithms, where equal shares have equal lengths.
struct Estimate {
    double value = 0;    ///< nanoseconds
    double below = 0;    ///< how far below it the true one may lie
    double above = 0;    ///< how far above
    bool isOnce = false; ///< of one part only: nothing is known of its variation
};

/// @return how a function of the blocks' weights varies among the bootstrap samples.
template <class Function>
double Deviation(const Side& side, Function function) {
    double sum = 0;
    double squares = 0;
    for (const auto& weights : side.weights) {
        const double value = function(weights);
        sum += value;
        squares += value * value;
    }
    const double mean = sum / samplesTaken;
    const double variance = std::max(0.0, squares / samplesTaken - mean * mean);
    const auto drawn = static_cast<double>(side.stretches);
    return std::sqrt(variance * drawn / std::max(drawn - 1, 1.0));
}

using BlockSums = std::array<double, mostBlocks>;

double Weigh(const std::array<std::uint16_t, mostBlocks>& weights, const BlockSums& sums) {
    double sum = 0;
    for (std::size_t i = 0; i < mostBlocks; ++i)
        sum += weights[i] * sums[i];
    return sum;
}

/// How many blocks have any of them.
unsigned BlocksWith(const Pieces& pieces) {
    std::array<bool, mostBlocks> seen{};
    for (const Sample& sample : pieces.samples)
        seen[sample.block] = true;
    return static_cast<unsigned>(std::count(seen.begin(), seen.end(), true));
}

unsigned Freedom(const Side& side, unsigned blocks) {
    return std::max(1U, std::min(blocks, static_cast<unsigned>(side.stretches)) - 1);
}

Estimate EstimateTotal(const Side& side, const Pieces& pieces, double chance) {
    Estimate estimate{.value = pieces.total};
    const unsigned blocks = BlocksWith(pieces);
    if (blocks < 2) {
        estimate.isOnce = true;
        return estimate;
    }
    BlockSums sums{};
    for (const Sample& sample : pieces.samples)
        sums[sample.block] += static_cast<double>(sample.value);
    const double deviation =
        Deviation(side, [&](const auto& weights) { return Weigh(weights, sums); }) /
        std::max(pieces.total, 1.0);
    // Where the sum may as well be none, it rests on a few large pieces: the next run may have
    // none.
    const double reach = deviation * StudentQuantile(chance, Freedom(side, blocks));
    estimate.below = reach < 1 ? -std::log1p(-reach) : std::numeric_limits<double>::infinity();
    estimate.above = std::log1p(reach);
    return estimate;
}

/// @param pieces has its samples sorted.
Estimate EstimateQuantile(const Side& side, const Pieces& pieces, unsigned thousandths,
                          double chance) {
    const std::vector<Sample>& samples = pieces.samples;
    const auto count = static_cast<double>(samples.size());
    const auto value = static_cast<double>(samples[Rank(samples.size(), thousandths) - 1].value);
    Estimate estimate{.value = value};
    const unsigned blocks = BlocksWith(pieces);
    if (blocks < 2) {
        estimate.isOnce = true;
        return estimate;
    }
    BlockSums all{};
    BlockSums below{};
    for (const Sample& sample : samples) {
        all[sample.block] += 1;
        below[sample.block] += static_cast<double>(sample.value) <= value ? 1 : 0;
    }
    const double share = thousandths / 1000.0;
    const double deviation =
        std::max(std::sqrt(share * (1 - share) / count), Deviation(side, [&](const auto& weights) {
                     const double weight = Weigh(weights, all);
                     return weight > 0 ? Weigh(weights, below) / weight : share;
                 }));
    const auto at = [&](double wanted) { // the distance to the value of that rank
        const double rank = std::ceil(wanted * count);
        if (rank < 1 || rank > count)
            return std::numeric_limits<double>::infinity(); // beyond all that was seen
        return std::abs(
            Log(static_cast<double>(samples[static_cast<std::size_t>(rank) - 1].value)) -
            Log(value));
    };
    const double reach = deviation * StudentQuantile(chance, Freedom(side, blocks));
    estimate.below = at(share - reach);
    estimate.above = at(share + reach);
    return estimate;
}

/// A comparison, and what it takes to judge it.
struct Candidate {
    Diff::Comparison result;
    double move = 0; ///< the logarithm of after / before
    double below = 0;
    double above = 0;
    double needed = 0; ///< by how much everything else moved, and the machine may have
    bool isOnce = false;
    bool isNew = false; ///< or gone: of one run only, and not by chance
    double added = 0;   ///< to the run's total, in nanoseconds
    const Pieces* before = nullptr;
    const Pieces* after = nullptr;

    /// What the change of this quantity makes of the run's time, about.
    double Worth() const {
        const auto count = static_cast<double>(after->samples.size());
        const auto change = std::abs(static_cast<double>(result.after - result.before));
        return result.quantity == Quantity::Total ? change
               : result.quantity == Quantity::P50 ? change * count
                                                  : change * count / 100;
    }

    bool IsChange() const {
        if (isNew)
            return true;
        if (isOnce)
            return result.kind == Kind::Label &&
                   std::abs(move) > std::max(needed, std::log(onceFactor)) &&
                   std::abs(added) > onceNanoseconds &&
                   // What it had handed over took longer, and not itself.
                   std::abs(after->alone - before->alone) > std::abs(added) / 2;
        return move > 0 ? move > std::hypot(below, needed) : -move > std::hypot(above, needed);
    }
};

Candidate Compare(const Key& key, Quantity quantity, Side& before, Side& after, double scale,
                  double chance) {
    Candidate candidate;
    candidate.before = &before.pieces[key];
    candidate.after = &after.pieces[key];
    const auto estimate = [&](const Side& side, const Pieces& pieces) {
        if (quantity == Quantity::Total)
            return EstimateTotal(side, pieces, chance);
        return EstimateQuantile(side, pieces, quantity == Quantity::P50 ? 500 : 990, chance);
    };
    const Estimate old = estimate(before, *candidate.before);
    Estimate now = estimate(after, *candidate.after);
    if (quantity == Quantity::Total)
        now.value *= scale;
    candidate.result = {
        key.first, key.second, quantity, std::llround(old.value), std::llround(now.value), 0, 0};
    candidate.move = Log(now.value) - Log(old.value);
    candidate.below = std::hypot(now.below, old.above);
    candidate.above = std::hypot(now.above, old.below);
    candidate.isOnce = old.isOnce || now.isOnce;
    candidate.added = candidate.after->total * scale - candidate.before->total;
    if (candidate.before->samples.empty() != candidate.after->samples.empty()) {
        // So many blocks of one run have it: how likely is it that those of the other have it not?
        const bool isGone = candidate.after->samples.empty();
        const Side& with = isGone ? before : after;
        const double without = 1 - BlocksWith(isGone ? *candidate.before : *candidate.after) /
                                       static_cast<double>(with.blockCount);
        candidate.isNew = with.blockCount >= fewestParts &&
                          std::pow(without, (isGone ? after : before).blockCount) < chance;
    }
    return candidate;
}

/// What the other labels say of how far the two runs differ as a whole.
/// @return the most of it.
double SetNeeded(std::vector<Candidate>& candidates, double drift) {
    double most = 0;
    for (Candidate& candidate : candidates) {
        std::vector<double> others;
        for (const Candidate& other : candidates)
            if (&other != &candidate && other.result.quantity == candidate.result.quantity &&
                other.result.kind == Kind::Label && !other.isOnce && !other.isNew &&
                other.result.name != candidate.result.name)
                others.push_back(std::abs(other.move));
        double middle = 0;
        if (!others.empty()) {
            const auto place =
                others.begin() + static_cast<std::ptrdiff_t>((others.size() - 1) / 2);
            std::nth_element(others.begin(), place, others.end());
            middle = *place;
        }
        const bool isRobust = candidate.result.quantity == Quantity::P50;
        candidate.needed =
            std::hypot(outstanding * middle, std::log1p(drift) * (isRobust ? 1 : tailDrift));
        most = std::max(most, middle);
    }
    return std::expm1(most);
}

bool HasAny(const std::set<NameId>& labels, const std::set<NameId>& wanted) {
    return std::any_of(wanted.begin(), wanted.end(),
                       [&](NameId label) { return labels.contains(label); });
}

/// Keeps of the changes those that nothing else accounts for.
/// @param runTotal the self time of all labels.
std::vector<Candidate> Settle(std::vector<Candidate> changes, double runTotal) {
    std::erase_if(changes, [&](const Candidate& change) {
        const auto pieces =
            static_cast<double>(std::max<std::size_t>(change.after->samples.size(), 1));
        const double moved = std::abs(static_cast<double>(change.result.after) -
                                      static_cast<double>(change.result.before));
        const double ofEach = change.result.quantity == Quantity::Total ? moved / pieces : moved;
        return ofEach < eventNanoseconds && ofEach * pieces < worthOfRun * runTotal;
    });
    std::map<NameId, double> worth; // of each label
    double largest = 0;
    double largestMove = 0;
    for (const Candidate& change : changes)
        if (change.result.kind == Kind::Label) {
            worth[change.result.name] = std::max(worth[change.result.name], change.Worth());
            if (change.Worth() > largest) {
                largest = change.Worth();
                largestMove = change.move;
            }
        }
    std::erase_if(changes, [&](const Candidate& change) {
        const double least = change.move * largestMove < 0 ? worthNamingOpposite : worthNaming;
        return change.result.kind == Kind::Label && worth[change.result.name] < least * largest;
    });

    // A scope that waits for others: what it gained, it gained while they were at work, and one of
    // their labels changed the same way.
    std::map<bool, std::set<NameId>> changed; // slower ones, and faster ones
    for (const Candidate& change : changes)
        if (change.result.kind == Kind::Label)
            changed[change.move > 0].insert(change.result.name);
    std::erase_if(changes, [&](const Candidate& change) {
        if (change.result.kind != Kind::Label)
            return false;
        std::set<NameId> others = changed[change.move > 0];
        others.erase(change.result.name);
        const double alone = change.after->alone - change.before->alone;
        return std::abs(alone) < std::abs(change.added) / 2 &&
               (HasAny(change.before->within, others) || HasAny(change.after->within, others));
    });

    // A request that one of its labels accounts for.
    std::erase_if(changes, [&](const Candidate& change) {
        if (change.result.kind != Kind::Request)
            return false;
        const std::set<NameId>& labels = changed[change.move > 0];
        return HasAny(change.before->within, labels) || HasAny(change.after->within, labels);
    });
    return changes;
}

/// The bounds of the change, in nanoseconds.
void SetBounds(Candidate& candidate) {
    const auto bounded = [&](double move) {
        constexpr double most = 9e18;
        const double before = std::max(static_cast<double>(candidate.result.before), 1.0);
        return std::isinf(move) && move > 0
                   ? std::numeric_limits<std::int64_t>::max()
                   : std::llround(std::min(std::expm1(move) * before, most));
    };
    candidate.result.low = bounded(candidate.move - candidate.below);
    candidate.result.high = bounded(candidate.move + candidate.above);
}

} // namespace

Diff MakeDiff(const Model& model, const DiffOptions& options) {
    Diff diff;
    std::array<Side, 2> sides;
    std::array<std::vector<Part>, 2> parts;
    std::array<std::vector<Index>, 2> starts;
    for (std::size_t i = 0; i < 2; ++i) {
        sides[i].run = &model.runs[i];
        sides[i].requests = Requests(model, model.runs[i], options.request);
    }
    for (int depth = 0; depth <= deepest; ++depth) {
        for (std::size_t i = 0; i < 2; ++i)
            parts[i] = TakeApart(*sides[i].run, sides[i].requests, depth, starts[i]);
        diff.areRequests = depth == 0;
        if (std::min(parts[0].size(), parts[1].size()) >= fewestParts)
            break;
    }
    std::set<Key> keys;
    for (std::size_t i = 0; i < 2; ++i) {
        Side& side = sides[i];
        MakeBlocks(side, parts[i], starts[i]);
        AddLabels(side);
        AddRequests(side);
        for (auto& [key, pieces] : side.pieces) {
            keys.insert(key);
            std::sort(pieces.samples.begin(), pieces.samples.end(),
                      [](const Sample& a, const Sample& b) { return a.value < b.value; });
        }
    }
    diff.parts = std::min(sides[0].parts, sides[1].parts);

    std::vector<std::pair<Key, Quantity>> wanted;
    for (const Key& key : keys) {
        const std::size_t fewer =
            std::min(sides[0].pieces[key].samples.size(), sides[1].pieces[key].samples.size());
        const auto want = [&](Quantity quantity, bool isPossible) {
            if (isPossible)
                wanted.emplace_back(key, quantity);
            else
                ++diff.tooFew;
        };
        want(Quantity::P50, fewer >= SamplesFor(500));
        want(Quantity::P99, fewer >= SamplesFor(990));
        want(Quantity::Total, true);
    }
    diff.compared = wanted.size();
    const double scale = sides[0].requests.empty() || sides[1].requests.empty()
                             ? 1
                             : static_cast<double>(sides[0].requests.size()) /
                                   static_cast<double>(sides[1].requests.size());
    std::vector<Candidate> candidates;
    candidates.reserve(wanted.size());
    for (const auto& [key, quantity] : wanted)
        candidates.push_back(Compare(key, quantity, sides[0], sides[1], scale,
                                     level / static_cast<double>(wanted.size())));
    diff.othersMoved = SetNeeded(candidates, options.drift);
    std::erase_if(candidates, [](const Candidate& candidate) { return !candidate.IsChange(); });
    double runTotal = 0;
    for (const auto& [key, pieces] : sides[0].pieces)
        runTotal += key.first == Kind::Label ? pieces.total : 0;
    candidates = Settle(std::move(candidates), runTotal);
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate& a, const Candidate& b) {
                         return std::abs(a.added) > std::abs(b.added);
                     });
    for (Candidate& candidate : candidates) {
        SetBounds(candidate);
        diff.changes.push_back(candidate.result);
    }
    return diff;
}

} // namespace Metrics::tools
