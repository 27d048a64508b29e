// The texts of the page. All of them stand in text.LANGUAGE.json; a new language is a new file and
// its code in LANGUAGES.
const LANGUAGES = ["en"];

let texts = {};
let plurals = new Intl.PluralRules("en");
export let number = new Intl.NumberFormat("en");

export async function loadTexts() {
    const wanted = navigator.languages.map((language) => language.split("-")[0]);
    const language = wanted.find((each) => LANGUAGES.includes(each)) ?? LANGUAGES[0];
    const answer = await fetch(new URL(`text.${language}.json`, import.meta.url));
    texts = await answer.json();
    plurals = new Intl.PluralRules(language);
    number = new Intl.NumberFormat(language);
    document.documentElement.lang = language;
}

// The text with its {places} filled in. A text in several numbers is chosen by `n`.
export function t(key, places = {}) {
    let text = texts[key] ?? key;
    if (typeof text === "object") {
        text = text[plurals.select(places.n)] ?? text.other;
    }
    return text.replace(/\{(\w+)\}/g, (_, place) => {
        const value = places[place];
        return typeof value === "number" ? number.format(value) : (value ?? "");
    });
}

// A segment of a name for people: "white_balance" is "White balance". Words with a spelling of
// their own stand under "words".
export function titleOf(segment) {
    const words = segment.split("_").map((word) => texts.words?.[word.toLowerCase()] ?? word);
    const title = words.join(" ");
    return title.charAt(0).toUpperCase() + title.slice(1);
}

// "camera.stream.1.bitrate" is ["Camera", "Stream 1", "Bitrate"]: an instance goes with its group.
export function titlesOf(path) {
    const titles = [];
    for (const segment of path.split(".").filter((each) => each !== "")) {
        if (/^\d+$/.test(segment) && titles.length > 0) {
            titles.push(`${titles.pop()} ${segment}`);
        } else {
            titles.push(titleOf(segment));
        }
    }
    return titles;
}
