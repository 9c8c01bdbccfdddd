#include "treereader.h"

#include "errors.h"
#include "parallel.h"

namespace obregtool {

namespace {

constexpr size_t MostAhead = 256; // keys
constexpr size_t FewEach = 4;     // fewer keys are not worth a thread

} // namespace

TreeReader::TreeReader(const KeyPath& path, uint64_t depth, Read what) : m_depth(depth), m_what(what)
{
    auto pTop = std::make_shared<Node>(Order(), path, m_held);
    pTop->entry.key = openKey(path);
    pTop->entry.content = readKey(pTop->entry.key, path, what, pTop->held);
    m_way.push_back(std::move(pTop));
    settle(m_way.back());
    startThreads();
}

TreeReader::~TreeReader()
{
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
        m_more.notify_all();
    }
    for (std::thread& thread : m_threads)
        thread.join();
}

TreeReader::Entry* TreeReader::next()
{
    if (!m_begun) {
        m_begun = true;
        return &m_way.front()->entry;
    }
    if (!m_way.empty()) {
        m_way.back()->entry.content.values = {};
        m_way.back()->held.clear();
    }
    std::unique_lock lock(m_mutex);
    while (!m_way.empty()) {
        Node& parent = *m_way.back();
        if (parent.ahead.empty()) {
            if (!hasMore(parent)) {
                m_done.push_back(std::move(m_way.back()));
                m_way.pop_back();
                m_more.notify_one();
                continue;
            }
            const std::shared_ptr<Node> pNode = begin(parent);
            lock.unlock();
            read(parent, *pNode);
            lock.lock();
            settle(pNode);
        }
        std::shared_ptr<Node> pNode = parent.ahead.front();
        m_read.wait(lock, [&] { return pNode->state != State::Reading; });
        parent.ahead.pop_front();
        --m_ahead;
        m_more.notify_one();
        if (pNode->pFailure)
            std::rethrow_exception(pNode->pFailure);
        if (pNode->state == State::Gone)
            continue;
        m_way.push_back(std::move(pNode));
        lock.unlock();
        startThreads();
        return &m_way.back()->entry;
    }
    return nullptr;
}

void TreeReader::skipBelow()
{
    const std::lock_guard lock(m_mutex);
    skip(*m_way.back());
}

void TreeReader::skip(Node& node)
{
    if (hasMore(node)) {
        Order first = node.order;
        first.push_back(node.begun);
        m_open.erase(first);
    }
    node.skipped = true;
    m_ahead -= node.ahead.size();
    for (const std::shared_ptr<Node>& pBelow : node.ahead)
        skip(*pBelow);
    node.ahead.clear();
}

bool TreeReader::hasMore(const Node& node) const
{
    return node.state == State::Read && !node.skipped && node.order.size() < m_depth &&
           node.begun < node.entry.content.subKeys.size();
}

/// Takes the parent's next sub-key to read it.
std::shared_ptr<TreeReader::Node> TreeReader::begin(Node& parent)
{
    Order order = parent.order;
    order.push_back(parent.begun);
    auto open = m_open.extract(order);
    const std::string& name = parent.entry.content.subKeys[parent.begun++].name;
    auto pNode = std::make_shared<Node>(order, parent.entry.path.child(name), m_held);
    parent.ahead.push_back(pNode);
    ++m_ahead;
    if (hasMore(parent)) {
        ++open.key().back();
        m_open.insert(std::move(open));
    }
    return pNode;
}

void TreeReader::read(const Node& parent, Node& node) const
{
    const BusyThread busy;
    Entry& entry = node.entry;
    try {
        std::error_code error;
        entry.key = obreg::Key::open(parent.entry.key, entry.path.name(), KEY_READ, error);
        check(error, entry.path);
        entry.content = readKey(entry.key, entry.path, m_what, node.held);
    } catch (const Failure& failure) {
        entry.key.close();
        if (failure.exit != ExitNotFound)
            node.pFailure = std::current_exception();
    } catch (...) {
        node.pFailure = std::current_exception();
    }
}

void TreeReader::settle(const std::shared_ptr<Node>& pNode)
{
    pNode->state = pNode->pFailure ? State::Failed : pNode->entry.key ? State::Read : State::Gone;
    if (hasMore(*pNode)) {
        m_found += pNode->entry.content.subKeys.size();
        Order first = pNode->order;
        first.push_back(0);
        m_open.emplace(std::move(first), pNode);
        m_more.notify_all();
    }
}

void TreeReader::startThreads()
{
    size_t wanted = 0;
    {
        const std::lock_guard lock(m_mutex);
        wanted = std::min(RequestThreads, m_found / FewEach);
    }
    try {
        while (m_threads.size() < wanted)
            m_threads.emplace_back([this] { work(); });
    } catch (const std::system_error&) { // fewer do it as well
    }
}

void TreeReader::work()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        const auto canRead = [this] { return m_ahead < MostAhead && !m_open.empty(); };
        m_more.wait(lock, [&] { return m_ending || !m_done.empty() || canRead(); });
        if (m_ending)
            return;
        if (!m_done.empty()) {
            std::shared_ptr<Node> pDone = std::move(m_done.back());
            m_done.pop_back();
            lock.unlock();
            pDone.reset(); // closes the key
            lock.lock();
            continue;
        }
        const std::shared_ptr<Node> pParent = m_open.begin()->second;
        const std::shared_ptr<Node> pNode = begin(*pParent);
        lock.unlock();
        read(*pParent, *pNode);
        lock.lock();
        settle(pNode);
        m_read.notify_one();
    }
}

} // namespace obregtool
