// The accounts, read from the page's own data, and how their figures are written.

const report = JSON.parse(document.getElementById('data').textContent);
const ALL_KINDS = -1;
const A_DAY = 86400;
const NEAR_LIMIT = 90;
const LEVELS = new Map([[10, 'reseller'], [50, 'client'], [100, 'user']]);
const FIRST_DOUBTFUL = report.states.indexOf('dirty');

// A row: id, parent, level, login, what is used of each kind, the limit of each kind, the states as
// one digit for each kind, the age, and, where there are any, the updates of each kind.
function readAccount([id, parentId, level, name, used, limit, states, age, updates], index) {
  const account = {
    index, id, parentId, level, used, limit, states, age, updates,
    label: showText(name || ''),
    total: null,
    percent: null,
    state: 0,
    parent: null,
    children: [],
  };
  for (let kind = 0; kind < used.length; ++kind) {
    if (used[kind] !== null) account.total = (account.total || 0) + used[kind];
    account.percent = higher(account.percent, percentOf(account, kind));
    account.state = Math.max(account.state, stateOf(account, kind));
  }
  return account;
}

function stateOf(account, kind) {
  return Number(account.states[kind]);
}

function higher(a, b) {
  return a === null || (b !== null && b > a) ? b : a;
}

// What disturbs the text around it, or cannot be seen, is shown by its number: no login can then
// look like a part of this page.
const hex = (code) => code.toString(16).toUpperCase().padStart(4, '0');
const DISTURBING = new RegExp('[' + report.disturbing.map(([first, last]) =>
  '\\u{' + hex(first) + '}-\\u{' + hex(last) + '}').join('') + ']', 'gu');

function showText(text) {
  return text.replace(DISTURBING, (character) => '\u2039' + hex(character.codePointAt(0)) + '\u203a');
}

function percentOf(account, kind) {
  if (kind === ALL_KINDS) return account.percent;
  const used = account.used[kind];
  const limit = account.limit[kind];
  if (used === null || limit === null) return null;
  return (100 * used) / Math.max(limit, 1);
}

// What the map shows: the figure, or what those below have together where that is more, as it is
// when the figure is not known.
function valueOf(account, kind) {
  return kind === ALL_KINDS ? sumOf(account.weights) : account.weights[kind];
}

function addWeights(account) {
  account.children.forEach(addWeights);
  account.weights = account.used.map((used, kind) =>
    Math.max(used || 0, account.children.reduce((sum, child) => sum + child.weights[kind], 0)));
}

// Whether those below tell what the account's own figures do not.
function isAtLeast(account, kind) {
  return account.used.some((used, one) =>
    used === null && account.weights[one] > 0 && (kind === ALL_KINDS || kind === one));
}

function sumOf(numbers) {
  return numbers === undefined ? 0 : numbers.reduce((sum, number) => sum + number, 0);
}

function largestKind(account) {
  let largest = 0;
  for (let kind = 1; kind < report.kinds.length; ++kind) {
    if ((account.used[kind] || 0) > (account.used[largest] || 0)) largest = kind;
  }
  return largest;
}

// All accounts below one root that is none itself. A parent must stand on a higher level, so that
// no loop of parents can hide its accounts; one without such a parent hangs from the root.
function buildTree(all) {
  const known = new Map(all.map((account) => [account.id, account]));
  const top = { index: -1, id: null, level: 0, label: 'All accounts', parent: null, children: [] };
  for (const account of all) {
    const parent = known.get(account.parentId);
    account.parent = parent && parent.level < account.level ? parent : top;
    account.parent.children.push(account);
  }
  top.limit = report.kinds.map(() => null);
  top.used = top.limit;
  addWeights(top);
  top.used = top.weights;
  top.total = sumOf(top.used);
  top.percent = null;
  return top;
}

function isBelow(account, above) {
  let step = account;
  while (step !== null && step !== above) step = step.parent;
  return step === above;
}

function bytesText(bytes) {
  if (bytes === null) return '\u2013';
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB', 'EiB'];
  let unit = 0;
  let scaled = bytes;
  while (scaled >= 1024 && unit < units.length - 1) {
    scaled /= 1024;
    ++unit;
  }
  return scaled.toFixed(unit === 0 || scaled >= 100 ? 0 : 1) + '\u00a0' + units[unit];
}

function percentText(percent) {
  if (percent === null) return '\u2013';
  if (percent >= 10000) return 'over 9,999\u00a0%';
  return percent.toFixed(1) + '\u00a0%';
}

function ageText(seconds) {
  if (seconds === null) return '\u2013';
  if (seconds < 120) return seconds + '\u00a0s';
  if (seconds < 7200) return Math.floor(seconds / 60) + '\u00a0min';
  if (seconds < 2 * A_DAY) return Math.floor(seconds / 3600) + '\u00a0h';
  return Math.floor(seconds / A_DAY) + '\u00a0d';
}

function countText(count) {
  return count.toLocaleString('en');
}

function levelText(level) {
  return LEVELS.get(level) || 'level ' + level;
}

// Each band of use against limit has a colour and a mark: colour is never the only sign.
const BANDS = [
  { name: 'none', label: 'no limit or figure', mark: '' },
  { name: 'low', label: 'below 70 %', mark: '' },
  { name: 'middle', label: '70 to 90 %', mark: '\u25d4 ' },
  { name: 'high', label: '90 to 100 %', mark: '\u25d5 ' },
  { name: 'over', label: 'over the limit', mark: '\u25b2 ' },
];

function bandOf(percent) {
  if (percent === null) return BANDS[0];
  if (percent > 100) return BANDS[4];
  if (percent >= NEAR_LIMIT) return BANDS[3];
  return percent >= 70 ? BANDS[2] : BANDS[1];
}

const STATE_MARKS = ['', '\u223c ', '\u2731 ', '\u21bb ', '? ', '\u2715 '];

const accounts = report.accounts.map(readAccount);
const root = buildTree(accounts);
