// Elements of the page. Text goes in as text only; nothing here reads markup.

function element(name, attributes, ...content) {
  return filled(document.createElement(name), attributes, content);
}

function drawn(name, attributes, ...content) {
  return filled(document.createElementNS('http://www.w3.org/2000/svg', name), attributes, content);
}

function filled(made, attributes, content) {
  for (const [name, value] of Object.entries(attributes || {})) {
    if (typeof value === 'function') made.addEventListener(name, value);
    else if (value !== null) made.setAttribute(name, value);
  }
  made.append(...content);
  return made;
}

function byId(id) {
  return document.getElementById(id);
}

function nameText(account) {
  return account.label || '(no login)';
}

// A login, kept apart from the direction of what stands around it.
function loginElement(account) {
  return element('bdi', { class: 'login' }, nameText(account));
}

function bar(percent) {
  const inner = element('span', { class: 'fill ' + bandOf(percent).name });
  inner.style.width = Math.min(100, percent || 0) + '%';
  return element('span', { class: 'bar', 'aria-hidden': 'true' }, inner);
}

// Of the account's fullest kind.
function percentOfLimits(account) {
  const hasLimit = account.limit.some((limit) => limit !== null);
  return hasLimit ? percentLabel(account.percent) : 'no limit';
}

function percentLabel(percent) {
  return bandOf(percent).mark + percentText(percent);
}

function stateLabel(state, updates) {
  const since = report.states[state] === 'updated' && updates ? ' (' + updates + ' since)' : '';
  return STATE_MARKS[state] + report.states[state] + since;
}
