<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US">
<context>
    <name>cloudmaterial</name>
    <message>
        <source>CloudMaterial</source>
        <translation>Cloud materials</translation>
    </message>
    <message>
        <source>Login</source>
        <translation>Log in</translation>
    </message>
    <message>
        <source>Logout</source>
        <translation>Log out</translation>
    </message>
    <message>
        <source>SelectServer</source>
        <translation>Select server</translation>
    </message>
    <message>
        <source>EnterPhoneNum</source>
        <translation>Enter phone number</translation>
    </message>
    <message>
        <source>EnterPhoneOrEmailOrName</source>
        <translation>Phone number, e-mail or user name</translation>
    </message>
    <message>
        <source>EnterPassword</source>
        <translation>Enter password</translation>
    </message>
    <message>
        <source>EnterEmail</source>
        <translation>Enter e-mail address</translation>
    </message>
    <message>
        <source>EnterCorrectPhoneNum</source>
        <translation>Please enter a valid phone number</translation>
    </message>
    <message>
        <source>EnterCorrectEmail</source>
        <translation>Please enter a valid e-mail address</translation>
    </message>
    <message>
        <source>AccountOrPwdError</source>
        <translation>Incorrect user name or password</translation>
    </message>
    <message>
        <source>PleaseCheckServiceProxy</source>
        <translation>Please accept the terms and privacy policy first</translation>
    </message>
    <message>
        <source>PhoneNotExist</source>
        <translation>This phone number is not registered</translation>
    </message>
    <message>
        <source>EmailNotExist</source>
        <translation>This e-mail address is not registered</translation>
    </message>
    <message>
        <source>PleaseInputAccount</source>
        <translation>Please enter your account</translation>
    </message>
    <message>
        <source>PleaseInputPassword</source>
        <translation>Please enter your password</translation>
    </message>
    <message>
        <source>PleaseDragSliderVerify</source>
        <translation>Please drag the slider to verify first</translation>
    </message>
    <message>
        <source>LoginTypeLocked</source>
        <translation>This login method is locked, please try again later</translation>
    </message>
    <message>
        <source>GetVerifyCodeFail</source>
        <translation>Failed to get the verification code</translation>
    </message>
    <message>
        <source>DownloadFailedDeleteToRetry</source>
        <translation>The download failed. Delete clears what it left; then download again.</translation>
    </message>
    <message>
        <source>ChooseServerFirst</source>
        <translation>Please choose a server first</translation>
    </message>
    <message>
        <source>VerificationCodeLogin</source>
        <translation>Code login</translation>
    </message>
    <message>
        <source>AccountLogin</source>
        <translation>Account login</translation>
    </message>
    <message>
        <source>Agree</source>
        <translation>I agree to the</translation>
    </message>
    <message>
        <source>TermsOfService</source>
        <translation>Terms of Service</translation>
    </message>
    <message>
        <source>PrivacyPolicy</source>
        <translation>Privacy Policy</translation>
    </message>
    <message>
        <source>And</source>
        <translation>and</translation>
    </message>
    <message>
        <source>NoAccount</source>
        <translation>No account yet</translation>
    </message>
    <message>
        <source>RegisterNow</source>
        <translation>Register now</translation>
    </message>
    <message>
        <source>RememberMe</source>
        <translation>Remember me</translation>
    </message>
    <message>
        <source>ForgotPassword</source>
        <translation>Forgot password?</translation>
    </message>
    <message>
        <source>ServerType</source>
        <translation>Server type:</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Cancel</translation>
    </message>
    <message>
        <source>GetVerifyCode</source>
        <translation>Get code</translation>
    </message>
    <message>
        <source>VerifyCodeError</source>
        <translation>Incorrect verification code</translation>
    </message>
    <message>
        <source>PhoneNum</source>
        <translation>Phone: </translation>
    </message>
    <message>
        <source>EmailNum</source>
        <translation>E-mail: </translation>
    </message>
    <message>
        <source>EnterCodeNum</source>
        <translation>Enter the verification code</translation>
    </message>
    <message>
        <source>AuthorizationVerify</source>
        <translation>Authorization</translation>
    </message>
    <message>
        <source>EmailTrustTip</source>
        <translation>To protect your account, logging in on a new device needs a verification code. It will be sent to this e-mail address.</translation>
    </message>
    <message>
        <source>PhoneTrustTip</source>
        <translation>To protect your account, logging in on a new device needs a verification code. It will be sent to this phone number.</translation>
    </message>
    <message>
        <source>Name</source>
        <translation>Name</translation>
    </message>
    <message>
        <source>Thumbnail</source>
        <translation>Thumbnail</translation>
    </message>
    <message>
        <source>Status</source>
        <translation>Status</translation>
    </message>
    <message>
        <source>Download</source>
        <translation>Download</translation>
    </message>
    <message>
        <source>Type</source>
        <translation>Type</translation>
    </message>
    <message>
        <source>Resolution</source>
        <translation>Resolution</translation>
    </message>
    <message>
        <source>Size</source>
        <translation>Size</translation>
    </message>
    <message>
        <source>PendingApproval</source>
        <translation>Pending approval</translation>
    </message>
    <message>
        <source>Reject</source>
        <translation>Rejected</translation>
    </message>
    <message>
        <source>Picture</source>
        <translation>Picture</translation>
    </message>
    <message>
        <source>Video</source>
        <translation>Video</translation>
    </message>
    <message>
        <source>Audio</source>
        <translation>Audio</translation>
    </message>
    <message>
        <source>Document</source>
        <translation>Document</translation>
    </message>
    <message>
        <source>SearchMaterial</source>
        <translation>Search materials</translation>
    </message>
    <message>
        <source>Refresh</source>
        <translation>Refresh</translation>
    </message>
    <message>
        <source>Add</source>
        <translation>Add</translation>
    </message>
    <message>
        <source>Delete</source>
        <translation>Delete</translation>
    </message>
    <message>
        <source>SwitchView</source>
        <translation>Switch view</translation>
    </message>
    <message>
        <source>NoMaterials</source>
        <translation>No materials in the cloud library yet.</translation>
    </message>
    <message>
        <source>NoMatchingMaterials</source>
        <translation>No material matches the search.</translation>
    </message>
    <message>
        <source>AddInCloudConsole</source>
        <translation>Materials are uploaded in the cloud's web console</translation>
    </message>
    <message>
        <source>DeleteLocalCopies</source>
        <translation>Delete the downloaded copies of the selected materials (Del)</translation>
    </message>
    <message>
        <source>DeleteLocalCopiesConfirm</source>
        <translation>Delete the downloaded copies of %1 material(s)? They stay in the cloud and can be downloaded again.</translation>
    </message>
    <message>
        <source>NotLoggedIn</source>
        <translation>You are not logged in. Log in to the cloud to see your materials.</translation>
    </message>
    <message>
        <source>CloudUnreachable</source>
        <translation>The cloud cannot be reached. Showing the materials known so far; the next refresh tries again.</translation>
    </message>
    <message>
        <source>NoMaterialsOffline</source>
        <translation>The cloud cannot be reached. The list comes back with the next refresh.</translation>
    </message>
</context>
</TS>
