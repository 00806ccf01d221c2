// SPDX-License-Identifier: Apache-2.0
// The order of candidates: the larger value first, and of equal ones the lower id. NaN comes
// nowhere.
const uint kNowhere = 0xffffffffu;
float minusInfinity() { return uintBitsToFloat(0xff800000u); }

bool before(float value, uint id, float otherValue, uint otherId) {
  return value > otherValue || (value == otherValue && id < otherId);
}

shared float sValue[kLocal];
shared uint sId[kLocal];

// The first of one candidate an invocation, for all. Every invocation must call it.
void firstOfWorkgroup(inout float value, inout uint id) {
  const uint i = gl_LocalInvocationID.x;
  sValue[i] = value;
  sId[i] = id;
  barrier();
  for (uint half_ = kLocal / 2u; half_ > 0u; half_ >>= 1) {
    const uint other = i + half_;
    if (i < half_ && before(sValue[other], sId[other], sValue[i], sId[i])) {
      sValue[i] = sValue[other];
      sId[i] = sId[other];
    }
    barrier();
  }
  value = sValue[0];
  id = sId[0];
  barrier();
}
