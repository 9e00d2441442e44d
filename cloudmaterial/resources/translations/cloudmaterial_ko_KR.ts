<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ko_KR">
<context>
    <name>cloudmaterial</name>
    <message>
        <source>CloudMaterial</source>
        <translation>클라우드 소재</translation>
    </message>
    <message>
        <source>Login</source>
        <translation>로그인</translation>
    </message>
    <message>
        <source>Logout</source>
        <translation>로그아웃</translation>
    </message>
    <message>
        <source>SelectServer</source>
        <translation>서버 선택</translation>
    </message>
    <message>
        <source>EnterPhoneNum</source>
        <translation>휴대폰 번호를 입력하세요</translation>
    </message>
    <message>
        <source>EnterPhoneOrEmailOrName</source>
        <translation>휴대폰 번호/이메일/사용자 이름</translation>
    </message>
    <message>
        <source>EnterPassword</source>
        <translation>비밀번호를 입력하세요</translation>
    </message>
    <message>
        <source>EnterEmail</source>
        <translation>이메일을 입력하세요</translation>
    </message>
    <message>
        <source>EnterCorrectPhoneNum</source>
        <translation>올바른 휴대폰 번호를 입력하세요</translation>
    </message>
    <message>
        <source>EnterCorrectEmail</source>
        <translation>올바른 이메일 주소를 입력하세요</translation>
    </message>
    <message>
        <source>AccountOrPwdError</source>
        <translation>사용자 이름 또는 비밀번호가 올바르지 않습니다</translation>
    </message>
    <message>
        <source>PleaseCheckServiceProxy</source>
        <translation>먼저 서비스 약관과 개인정보 처리방침에 동의하세요</translation>
    </message>
    <message>
        <source>PhoneNotExist</source>
        <translation>등록되지 않은 휴대폰 번호입니다</translation>
    </message>
    <message>
        <source>EmailNotExist</source>
        <translation>등록되지 않은 이메일입니다</translation>
    </message>
    <message>
        <source>PleaseInputAccount</source>
        <translation>계정을 입력하세요</translation>
    </message>
    <message>
        <source>PleaseInputPassword</source>
        <translation>비밀번호를 입력하세요</translation>
    </message>
    <message>
        <source>PleaseDragSliderVerify</source>
        <translation>먼저 슬라이더를 끌어 인증하세요</translation>
    </message>
    <message>
        <source>LoginTypeLocked</source>
        <translation>이 로그인 방식은 잠겨 있습니다. 잠시 후 다시 시도하세요</translation>
    </message>
    <message>
        <source>GetVerifyCodeFail</source>
        <translation>인증 코드를 받지 못했습니다</translation>
    </message>
    <message>
        <source>DownloadFailedDeleteToRetry</source>
        <translation>다운로드에 실패했습니다. 삭제하면 남은 파일이 지워지며, 그다음 다시 다운로드하세요.</translation>
    </message>
    <message>
        <source>ChooseServerFirst</source>
        <translation>먼저 서버를 선택해 주세요</translation>
    </message>
    <message>
        <source>VerificationCodeLogin</source>
        <translation>인증 코드 로그인</translation>
    </message>
    <message>
        <source>AccountLogin</source>
        <translation>계정 로그인</translation>
    </message>
    <message>
        <source>Agree</source>
        <translation>동의:</translation>
    </message>
    <message>
        <source>TermsOfService</source>
        <translation>서비스 약관</translation>
    </message>
    <message>
        <source>PrivacyPolicy</source>
        <translation>개인정보 처리방침</translation>
    </message>
    <message>
        <source>And</source>
        <translation>및</translation>
    </message>
    <message>
        <source>NoAccount</source>
        <translation>계정이 없으신가요</translation>
    </message>
    <message>
        <source>RegisterNow</source>
        <translation>지금 가입</translation>
    </message>
    <message>
        <source>RememberMe</source>
        <translation>사용자 이름 기억</translation>
    </message>
    <message>
        <source>ForgotPassword</source>
        <translation>비밀번호 찾기</translation>
    </message>
    <message>
        <source>ServerType</source>
        <translation>서버 유형:</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>확인</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>취소</translation>
    </message>
    <message>
        <source>GetVerifyCode</source>
        <translation>인증 코드 받기</translation>
    </message>
    <message>
        <source>VerifyCodeError</source>
        <translation>인증 코드가 올바르지 않습니다</translation>
    </message>
    <message>
        <source>PhoneNum</source>
        <translation>휴대폰 번호: </translation>
    </message>
    <message>
        <source>EmailNum</source>
        <translation>이메일: </translation>
    </message>
    <message>
        <source>EnterCodeNum</source>
        <translation>인증 코드를 입력하세요</translation>
    </message>
    <message>
        <source>AuthorizationVerify</source>
        <translation>권한 인증</translation>
    </message>
    <message>
        <source>EmailTrustTip</source>
        <translation>계정 보안을 위해 새 기기에서 로그인하려면 본인 확인이 필요합니다. 인증 코드가 아래 이메일로 전송됩니다.</translation>
    </message>
    <message>
        <source>PhoneTrustTip</source>
        <translation>계정 보안을 위해 새 기기에서 로그인하려면 본인 확인이 필요합니다. 인증 코드가 아래 휴대폰 번호로 전송됩니다.</translation>
    </message>
    <message>
        <source>Name</source>
        <translation>이름</translation>
    </message>
    <message>
        <source>Thumbnail</source>
        <translation>미리보기</translation>
    </message>
    <message>
        <source>Status</source>
        <translation>상태</translation>
    </message>
    <message>
        <source>Download</source>
        <translation>다운로드</translation>
    </message>
    <message>
        <source>Type</source>
        <translation>유형</translation>
    </message>
    <message>
        <source>Resolution</source>
        <translation>해상도</translation>
    </message>
    <message>
        <source>Size</source>
        <translation>크기</translation>
    </message>
    <message>
        <source>PendingApproval</source>
        <translation>승인 대기</translation>
    </message>
    <message>
        <source>Reject</source>
        <translation>반려됨</translation>
    </message>
    <message>
        <source>Picture</source>
        <translation>사진</translation>
    </message>
    <message>
        <source>Video</source>
        <translation>동영상</translation>
    </message>
    <message>
        <source>Audio</source>
        <translation>오디오</translation>
    </message>
    <message>
        <source>Document</source>
        <translation>문서</translation>
    </message>
    <message>
        <source>SearchMaterial</source>
        <translation>소재 검색</translation>
    </message>
    <message>
        <source>Refresh</source>
        <translation>새로 고침</translation>
    </message>
    <message>
        <source>Add</source>
        <translation>추가</translation>
    </message>
    <message>
        <source>Delete</source>
        <translation>삭제</translation>
    </message>
    <message>
        <source>SwitchView</source>
        <translation>보기 전환</translation>
    </message>
    <message>
        <source>NoMaterials</source>
        <translation>클라우드 라이브러리에 소재가 없습니다.</translation>
    </message>
    <message>
        <source>NoMatchingMaterials</source>
        <translation>검색과 일치하는 소재가 없습니다.</translation>
    </message>
    <message>
        <source>AddInCloudConsole</source>
        <translation>소재는 클라우드 웹 콘솔에서 업로드합니다</translation>
    </message>
    <message>
        <source>DeleteLocalCopies</source>
        <translation>선택한 소재의 다운로드된 사본 삭제 (Del)</translation>
    </message>
    <message>
        <source>DeleteLocalCopiesConfirm</source>
        <translation>소재 %1개의 다운로드된 사본을 삭제할까요? 클라우드의 소재는 남아 있으며 다시 다운로드할 수 있습니다.</translation>
    </message>
    <message>
        <source>NotLoggedIn</source>
        <translation>로그인되어 있지 않습니다. 클라우드에 로그인하면 소재를 볼 수 있습니다.</translation>
    </message>
    <message>
        <source>CloudUnreachable</source>
        <translation>클라우드에 연결할 수 없습니다. 지금까지 알려진 소재를 표시하며, 다음 새로 고침 때 다시 시도합니다.</translation>
    </message>
    <message>
        <source>NoMaterialsOffline</source>
        <translation>클라우드에 연결할 수 없습니다. 다음 새로 고침 때 목록을 다시 가져옵니다.</translation>
    </message>
</context>
</TS>
