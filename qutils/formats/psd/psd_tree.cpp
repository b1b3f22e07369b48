#include "qutils/formats/psd/psd_compose.h"

#include <string>
#include <utility>

namespace QUtils {

namespace {

/// More than any program makes; each level takes rows of memory.
constexpr std::size_t deepestNesting = 32;

int addNode(std::vector<PsdNode>& nodes, int parent)
{
    nodes.emplace_back();
    nodes.back().parent = parent;
    return int(nodes.size()) - 1;
}

/// A group whose folder was not found: its children belong to what it stands in.
void dissolveGroup(std::vector<PsdNode>& nodes, int group)
{
    PsdNode& node = nodes[std::size_t(group)];
    PsdNode& parent = nodes[std::size_t(node.parent)];
    for (const int child : node.children) {
        nodes[std::size_t(child)].parent = node.parent;
        parent.children.push_back(child);
    }
    node.children.clear();
}

} // namespace

PSD_Error buildPsdTree(const std::vector<PsdLayer>& layers, std::vector<PsdNode>& nodes)
{
    nodes.assign(1, PsdNode());
    std::vector<int> open = { 0 };
    for (std::size_t i = 0; i < layers.size(); ++i) {
        if (layers[i].section == PsdSection::End) {
            if (open.size() > deepestNesting)
                return PSD_ERROR_UNSUPPORTED;
            open.push_back(addNode(nodes, open.back()));
            continue;
        }
        const bool isFolder = layers[i].section == PsdSection::Folder;
        int node = 0;
        if (isFolder && open.size() > 1) {
            node = open.back();
            open.pop_back();
        } else {
            node = addNode(nodes, open.back());
        }
        nodes[std::size_t(node)].layer = int(i);
        nodes[std::size_t(node)].isGroup = isFolder;
        nodes[std::size_t(open.back())].children.push_back(node);
    }
    for (; open.size() > 1; open.pop_back())
        dissolveGroup(nodes, open.back());
    return PSD_ERROR_NONE;
}

namespace {

/// Looks through the document from the top down.
class NodeFinder {
public:
    NodeFinder(const std::vector<PsdNode>& nodes, const std::vector<PsdLayer>& layers, std::u32string name)
        : m_nodes(nodes), m_layers(layers), m_name(std::move(name))
    {
    }

    int find()
    {
        search(0);
        return m_whole != -1 ? m_whole : m_end;
    }

private:
    bool endsWithName() const
    {
        const std::size_t length = m_name.size();
        return m_path.size() > length && m_path.compare(m_path.size() - length, length, m_name) == 0
            && m_path[m_path.size() - length - 1] == U'/';
    }

    void search(int node)
    {
        const std::size_t length = m_path.size();
        const std::vector<int>& children = m_nodes[std::size_t(node)].children;
        for (auto child = children.rbegin(); child != children.rend() && m_whole == -1; ++child) {
            const PsdLayer& layer = m_layers[std::size_t(m_nodes[std::size_t(*child)].layer)];
            if (node != 0)
                m_path += U'/';
            m_path += layer.name.c_str();
            if (m_path == m_name)
                m_whole = *child;
            else if (m_end == -1 && endsWithName())
                m_end = *child;
            search(*child);
            m_path.resize(length);
        }
    }

    const std::vector<PsdNode>& m_nodes;
    const std::vector<PsdLayer>& m_layers;
    std::u32string m_name, m_path;
    int m_whole = -1; ///< Whose path is the name.
    int m_end = -1; ///< Whose path ends with it.
};

} // namespace

int findPsdNode(
    const std::vector<PsdNode>& nodes, const std::vector<PsdLayer>& layers, const UTF32String& name)
{
    return NodeFinder(nodes, layers, name.c_str()).find();
}

} // namespace QUtils
