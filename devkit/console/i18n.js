// Two languages. Texts are written in English where they are used; the table of the other
// language maps them. What it lacks stays English.

import { chinese, chinesePatterns } from './zh.js';

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

// The text for texts that hold a name or a number, as the host writes them.
function byPattern(english) {
    for (const [pattern, text] of chinesePatterns) {
        const match = english.match(pattern);
        if (match) return text.replace(/\{(\d)\}/g, (_, index) => t(match[Number(index)]));
    }
    return english;
}

// The text in the chosen language, with {name} replaced by values.
export function t(english, values = {}) {
    let text = english;
    if (language === 'zh') text = chinese[english] ?? byPattern(english);
    return text.replace(/\{(\w+)\}/g, (whole, name) => (name in values ? values[name] : whole));
}

// A text of the catalogue at the beginning of a line.
export function sentence(english) {
    const text = t(english);
    return text.charAt(0).toUpperCase() + text.slice(1);
}

export function number(value) {
    return value.toLocaleString(language === 'zh' ? 'zh-CN' : 'en');
}

export function byteCount(count) {
    return count === 1 ? t('1 byte') : t('{count} bytes', { count: number(count) });
}
