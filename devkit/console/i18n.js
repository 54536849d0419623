// Two languages. Texts are written in English where they are used; the table of the other
// language maps them. What it lacks stays English.

import { chinese } from './zh.js';

const STORED = 'corvane.language';

let language = 'en';

export function currentLanguage() {
    return language;
}

// The remembered language, or else the browser's.
export function chooseLanguage() {
    const stored = localStorage.getItem(STORED);
    const wanted = stored || (navigator.language || 'en');
    language = wanted.toLowerCase().startsWith('zh') ? 'zh' : 'en';
    document.documentElement.lang = language === 'zh' ? 'zh-CN' : 'en';
}

export function setLanguage(name) {
    localStorage.setItem(STORED, name);
    chooseLanguage();
}

// The text with {name} replaced by values.
export function filled(text, values) {
    return text.replace(/\{(\w+)\}/g, (whole, name) => (name in values ? values[name] : whole));
}

// The text in the chosen language, with {name} replaced by values.
export function t(english, values = {}) {
    return filled(language === 'zh' ? chinese[english] ?? english : english, values);
}

// A text in both languages: whichever the page has, it can be found by words of the other.
export function inBoth(english) {
    return [english, chinese[english] ?? english];
}

// Whether a text is one of this product's, so that it has another language.
export function isOurs(english) {
    return Object.hasOwn(chinese, english);
}

// A command at the beginning keeps its spelling.
export function capitalised(text) {
    return text.startsWith('corvane-') ? text : text.charAt(0).toUpperCase() + text.slice(1);
}

// A text of the catalogue at the beginning of a line.
export function sentence(english) {
    return capitalised(t(english));
}

export function number(value) {
    return value.toLocaleString(language === 'zh' ? 'zh-CN' : 'en');
}

// In the unit in which people read it, with the bytes behind it.
export function dataSize(count) {
    if (count < 1024) return byteCount(count);
    return t('{size} ({exactly})', { size: roundSize(count), exactly: byteCount(count) });
}

// "1.5 KiB".
export function roundSize(count) {
    if (count < 1024) return byteCount(count);
    let size = count;
    let unit = -1;
    for (; size >= 1023.95 && unit < 2; ++unit) size /= 1024;
    return `${number(Math.round(size * 10) / 10)} ${['KiB', 'MiB', 'GiB'][unit]}`;
}

export function byteCount(count) {
    return count === 1 ? t('1 byte') : t('{count} bytes', { count: number(count) });
}
