// The groups as a tree: one tab stop, arrow keys within, as the pattern for trees asks.
import {h, icon} from "./dom.js";
import {t, titleOf} from "./i18n.js";

const byName = new Intl.Collator("en", {numeric: true}).compare;

const newNode = (path, segment, parent) => ({
    path,
    segment,
    parent,
    children: new Map(),
    names: [],
    count: 0,
});

// From names to nodes: `names` are those of the group itself, `count` includes those below it. The
// root has the path "".
function nodesOf(names) {
    const root = newNode("", "", null);
    for (const name of names) {
        let node = root;
        node.count += 1;
        for (const segment of name.split(".").slice(0, -1)) {
            if (!node.children.has(segment)) {
                const path = node.path ? `${node.path}.${segment}` : segment;
                node.children.set(segment, newNode(path, segment, node));
            }
            node = node.children.get(segment);
            node.count += 1;
        }
        node.names.push(name);
    }
    return root;
}

// The names as the tree has them: those of a group itself before those of the groups in it.
const namesOf = (node) => [...node.names.sort(byName), ...sorted(node).flatMap(namesOf)];

const sorted = (node) => [...node.children.values()].sort((a, b) => byName(a.segment, b.segment));

function titleOfNode(node) {
    const isInstance = /^\d+$/.test(node.segment) && node.parent?.segment;
    return isInstance ? `${titleOf(node.parent.segment)} ${node.segment}` : titleOf(node.segment);
}

// `choose(path)` is called when the user picks a group; "" is all of them.
export class Tree {
    constructor(element, choose) {
        this.element = element;
        this.choose = choose;
        this.open = new Set(); // paths
        this.unsaved = new Set(); // paths
        this.chosen = "";
        this.items = []; // what can be reached now, from top to bottom: {node, item}
        this.setNames([]);
        element.addEventListener("keydown", (event) => this.onKey(event));
    }

    setNames(names) {
        this.root = nodesOf(names);
        this.draw();
    }

    names() {
        return namesOf(this.root);
    }

    // Shows the group as the chosen one, and all above it open.
    show(path) {
        if (path === this.chosen) {
            return;
        }
        this.chosen = path;
        const segments = path.split(".");
        for (let depth = 1; depth < segments.length; depth += 1) {
            this.open.add(segments.slice(0, depth).join("."));
        }
        this.draw();
    }

    // Marks the groups in which something is unsaved.
    setUnsaved(names) {
        const paths = new Set();
        for (const name of names) {
            for (let dot = name.indexOf("."); dot >= 0; dot = name.indexOf(".", dot + 1)) {
                paths.add(name.slice(0, dot));
            }
        }
        this.unsaved = paths;
        this.items.forEach(({node, item}) =>
            item.classList.toggle("unsaved", paths.has(node.path)),
        );
    }

    // A flat list: the level of an item is told by an attribute, so that its text is only its own.
    draw() {
        const focused = this.element.contains(document.activeElement);
        this.items = [];
        this.add(this.root, t("tree.all"), 1);
        this.addChildren(this.root, 1);
        this.element.replaceChildren(...this.items.map(({item}) => item));
        if (focused) {
            this.focus(this.items.find(({node}) => node.path === this.cursor) ?? this.items[0]);
        }
    }

    addChildren(parent, level) {
        const children = sorted(parent);
        children.forEach((node, place) => {
            const item = this.add(node, titleOfNode(node), level);
            item.setAttribute("aria-posinset", place + 1);
            item.setAttribute("aria-setsize", children.length);
            if (node.children.size > 0) {
                item.setAttribute("aria-expanded", String(this.open.has(node.path)));
            }
            if (this.open.has(node.path)) {
                this.addChildren(node, level + 1);
            }
        });
    }

    add(node, title, level) {
        const chosen = node.path === this.chosen;
        const item = h(
            "li",
            {
                role: "treeitem",
                class: "tree-row",
                "aria-level": level,
                "aria-selected": String(chosen),
                tabindex: chosen ? 0 : -1,
                "data-path": node.path,
                onclick: (event) => this.onClick(event, node),
            },
            node.children.size > 0 && node.path ? icon("chevron") : h("span", {class: "icon"}),
            h("span", {class: "tree-title"}, title),
            h("span", {class: "tree-count", "aria-hidden": "true"}, String(node.count)),
        );
        item.style.setProperty("--level", level);
        item.classList.toggle("unsaved", this.unsaved.has(node.path));
        this.items.push({node, item});
        return item;
    }

    onClick(event, node) {
        const onChevron = event.target.closest(".icon-chevron");
        this.cursor = node.path;
        if (onChevron || (this.chosen === node.path && node.path)) {
            this.toggle(node, !this.open.has(node.path));
        } else {
            this.open.add(node.path);
            this.choose(node.path);
        }
    }

    toggle(node, open) {
        if (open) {
            this.open.add(node.path);
        } else {
            this.open.delete(node.path);
        }
        this.draw();
    }

    focus(target) {
        if (target) {
            this.items.forEach(({item}) =>
                item.setAttribute("tabindex", item === target.item ? 0 : -1),
            );
            this.cursor = target.node.path;
            target.item.focus();
        }
    }

    onKey(event) {
        const at = this.items.findIndex(({item}) => item === document.activeElement);
        if (at < 0 || event.ctrlKey || event.altKey || event.metaKey) {
            return;
        }
        const {node} = this.items[at];
        const isOpen = this.open.has(node.path);
        const deep = node.children.size > 0 && node !== this.root;
        const keys = {
            ArrowDown: () => this.focus(this.items[at + 1]),
            ArrowUp: () => this.focus(this.items[at - 1]),
            Home: () => this.focus(this.items[0]),
            End: () => this.focus(this.items.at(-1)),
            Enter: () => this.choose(node.path),
            " ": () => this.choose(node.path),
            ArrowRight: () =>
                deep && (isOpen ? this.focus(this.items[at + 1]) : this.toggle(node, true)),
            ArrowLeft: () =>
                deep && isOpen
                    ? this.toggle(node, false)
                    : this.focus(this.items.find((each) => each.node === node.parent)),
        };
        const letter = event.key.length === 1 && event.key.trim();
        if (keys[event.key]) {
            this.cursor = node.path;
            keys[event.key]();
            event.preventDefault();
        } else if (letter) {
            const after = [...this.items.slice(at + 1), ...this.items.slice(0, at)];
            this.focus(
                after.find(({item}) =>
                    item.textContent.toLowerCase().startsWith(letter.toLowerCase()),
                ),
            );
        }
    }
}
