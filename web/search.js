// Which parameters the list shows, and in which order.
import {h} from "./dom.js";
import {titlesOf} from "./i18n.js";
import {wordOf} from "./controls.js";
import * as store from "./store.js";

const ROW = 56; // px, estimates
const HEADING = 48;

let names = []; // in the order of the tree
const texts = new Map(); // name -> what of it is searched beside the value, in small letters

export function setOrder(ordered) {
    names = ordered;
    texts.clear();
    for (const name of names) {
        texts.set(name, `${name} ${titlesOf(name).join(" ")}`.toLowerCase());
    }
}

export const wordsOf = (query) =>
    query
        .toLowerCase()
        .split(/\s+/)
        .filter((word) => word !== "");

function matches(name, words) {
    const {value, secret} = store.parameters.get(name);
    const edited = store.edits.get(name)?.value;
    const values = secret ? "" : `${value} ${wordOf(value ?? "")} ${edited ?? ""}`.toLowerCase();
    return words.every((word) => texts.get(name).includes(word) || values.includes(word));
}

export const FILTERS = {
    all: () => true,
    changed: (name) => store.parameters.get(name).changed || store.edits.has(name),
    unsaved: (name) => store.edits.has(name),
    live: (name) => store.parameters.get(name).state,
};

// The names to show: those of a group, or with a search, of all.
export function namesFor(group, filter, query) {
    const words = wordsOf(query);
    const prefix = group && words.length === 0 ? `${group}.` : "";
    return names.filter(
        (name) => name.startsWith(prefix) && FILTERS[filter](name) && matches(name, words),
    );
}

// Rows with a heading over those of each group.
export function itemsOf(shown) {
    const items = [];
    let group = null;
    for (const name of shown) {
        const path = name.slice(0, Math.max(0, name.lastIndexOf(".")));
        if (path !== group) {
            group = path;
            items.push({key: `#${path}`, group: path, height: HEADING});
        }
        items.push({key: name, height: ROW});
    }
    return items;
}

export function createHeading(path, onclick) {
    const titles = titlesOf(path);
    const parts = titles.map((title, place) =>
        h("span", {}, title, place < titles.length - 1 && h("i", {}, "›")),
    );
    return h("h2", {class: "list-heading"}, h("button", {type: "button", onclick}, parts));
}
